// A tree that was read or copied lives in its document's storage. These tests change such trees,
// copy them across documents and let the sources die first, so that a text or list that outlives
// its storage, or a change that reaches another copy, shows up (under ASan as a use after free).
#include <qorxmlu/xml/XML.h>

#include "TempDir.h"
#include "XMLTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace QOR::test {
namespace {

const String shop = Document({u"<Shop Version=\"3\" Owner=\"Åsa\">", u"\t<Item Id=\"1\" Kind=\"bolt\">12</Item>",
                              u"\t<Box Id=\"2\">", u"\t\t<Lid Colour=\"red\" />", u"\t\t<Seal />", u"\t</Box>",
                              u"\t<Note>Grüße</Note>", u"</Shop>"});
const std::string shopPicture = "Shop(Version=3,Owner=Åsa){Item(Id=1,Kind=bolt)[12] Box(Id=2){Lid(Colour=red) Seal} Note[Grüße]}";

std::unique_ptr<XML> ReadShop() {
  auto doc = std::make_unique<XML>();
  EXPECT_EQ(Outcome(doc->ReadText(shop)), "");
  return doc;
}

TEST(XMLReadTreeTest, ReadTagsTakeEveryChange) {
  auto doc = ReadShop();
  XMLTag* top = doc->TopTag();
  XMLTag* item = top->GetNestedTag(0);
  XMLTag* box = top->GetNestedTag(1);
  item->AddAttr(u"Size", u"M")->AddAttr(u"Heavy", u"no");
  item->SetAttrValue(0, u"one");
  item->RemoveAttr(1);
  item->SetName(u"Thing");
  *item << 7;
  box->GetNestedTag(0)->SetAttrName(0, u"Color");
  box->NestTag(u"Strap", u" x ");
  box->NestTagBeforeIndex(u"Base", 0);
  box->MoveNestedTag(3, 0);
  box->ReplaceNestedTag(0, 2);
  box->GetNestedTag(0)->Remove();
  top->NestTag(u"End");
  EXPECT_EQ(Picture(*top), "Shop(Version=3,Owner=Åsa){Thing(Id=one,Size=M,Heavy=no)[7] "
                           "Box(Id=2){Strap[x] Seal} Note[Grüße] End}");
  EXPECT_EQ(Outcome(doc->ReadText(doc->GetText())), "");
  EXPECT_EQ(Picture(*doc->TopTag()), "Shop(Version=3,Owner=Åsa){Thing(Id=one,Size=M,Heavy=no)[7] "
                                     "Box(Id=2){Strap[x] Seal} Note[Grüße] End}");
}

TEST(XMLReadTreeTest, CopiesOutliveTheirSourceAndSeeNoChangeOfIt) {
  auto source = ReadShop();
  std::optional<XML> copy(std::in_place, *source);
  XML assigned;
  assigned = *source;
  XML nested(u"Holder");
  nested.TopTag()->NestTag(source->TopTag()->GetNestedTag(1));
  nested.TopTag()->NestTag(source->TopTag());

  source->TopTag()->GetNestedTag(0)->SetAttrValue(1, u"nut");
  copy->TopTag()->GetNestedTag(1)->GetNestedTag(0)->AddAttr(u"Shut", u"yes");
  EXPECT_EQ(Picture(*source->TopTag()),
            "Shop(Version=3,Owner=Åsa){Item(Id=1,Kind=nut)[12] Box(Id=2){Lid(Colour=red) Seal} Note[Grüße]}");
  source.reset(); // the copies hold on to whatever they borrow

  EXPECT_EQ(Picture(*copy->TopTag()),
            "Shop(Version=3,Owner=Åsa){Item(Id=1,Kind=bolt)[12] Box(Id=2){Lid(Colour=red,Shut=yes) Seal} Note[Grüße]}");
  EXPECT_EQ(Picture(*assigned.TopTag()), shopPicture);
  EXPECT_EQ(Picture(*nested.TopTag()), "Holder{Box(Id=2){Lid(Colour=red) Seal} " + shopPicture + "}");

  // A copy of a copy, and a copy read over: the survivors keep their trees.
  XML second(*copy);
  copy.reset();
  EXPECT_EQ(Outcome(assigned.ReadText(Document({u"<Other />"}))), "");
  EXPECT_EQ(Picture(*second.TopTag()),
            "Shop(Version=3,Owner=Åsa){Item(Id=1,Kind=bolt)[12] Box(Id=2){Lid(Colour=red,Shut=yes) Seal} Note[Grüße]}");
  EXPECT_EQ(Picture(*assigned.TopTag()), "Other");

  // Assigning gives new tags; assigning a document to itself keeps them.
  XMLTag* oldTop = assigned.TopTag();
  assigned = second;
  EXPECT_NE(assigned.TopTag(), oldTop);
  EXPECT_EQ(assigned.GetText(), second.GetText());
  XMLTag* item = assigned.TopTag()->GetNestedTag(0);
  XML& self = assigned;
  assigned = self;
  EXPECT_EQ(assigned.TopTag()->GetNestedTag(0), item);
  // A tag copied within its document shares no attribute change with its source.
  XMLTag* copied = assigned.TopTag()->NestTag(item);
  item->RemoveAttr(1);
  item->SetAttrName(0, u"N");
  copied->SetAttrValue(0, u"x");
  EXPECT_EQ(Picture(*item), "Item(N=1)[12]");
  EXPECT_EQ(Picture(*copied), "Item(Id=x,Kind=bolt)[12]");
}

TEST(XMLReadTreeTest, LongTextsAndManyTagsComeBackWhole) {
  // Texts longer than the storage takes in one piece, before and between many small tags.
  const String longValue(std::u16string(1100000, u'x'));
  String text(u"<?xml version=\"1.0\"?>\r\n<Top>\r\n");
  text << u"<First>" << longValue << u"</First>\r\n";
  for (int i = 0; i < 20000; ++i) text << u"<Tag N=\"" << i << u"\">v</Tag>\r\n";
  text << u"<Last L=\"" << longValue << u"\" />\r\n</Top>\r\n";
  XML doc;
  ASSERT_EQ(Outcome(doc.ReadText(text)), "");
  const XML copy(doc);
  doc.TopTag()->GetNestedTag(0)->SetValue(u"short");
  for (const XML* each : {static_cast<const XML*>(&doc), &copy}) {
    const XMLTag* top = each->TopTag();
    ASSERT_EQ(top->NoOfNestedTags(), 20002u);
    EXPECT_EQ(top->GetNestedTag(12346)->GetAttrVal(0).ToUtf8(), "12345");
    EXPECT_EQ(top->GetNestedTag(20001)->GetAttrVal(0), longValue);
  }
  EXPECT_EQ(copy.TopTag()->GetNestedTag(0)->GetValue(), longValue);
  EXPECT_EQ(doc.TopTag()->GetNestedTag(0)->GetValue().ToUtf8(), "short");
  // A file gets a line longer than its write block whole.
  TempDir dir;
  EXPECT_EQ(Outcome(copy.Write(dir.File("long.xml"))), "");
  EXPECT_EQ(dir.Read("long.xml"), copy.GetText().ToUtf8());
}

} // namespace
} // namespace QOR::test
