#include <qorxmlu/foundation/FormatableTextFile.h>
#include <qorxmlu/xml/XML.h>

#include "TempDir.h"
#include "XMLTestSupport.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

using test::Outcome;
using test::Picture;

const char16_t* const prolog = u"<?xml version=\"1.0\"?>\r\n";

TEST(XMLWriterTest, WritesTheShopExampleByteForByte) {
  XML doc(u"Shop", u"", u"Version", u"3");
  XMLTag* top = doc.TopTag();
  top->AddComment(u"c1");
  top->NestTag(u"Item", u"12")->AddComment(u"c2");
  top->NestTag(u"Empty", u"", u"Id", u"7");
  top->NestTag(u"Box", u"v")->NestTag(u"Lid");
  EXPECT_EQ(doc.GetText(), String(u"<?xml version=\"1.0\"?>\r\n"
                                  u"<Shop Version=\"3\">\r\n"
                                  u"<!-- c1 -->\r\n"
                                  u"\t<Item>12</Item>\r\n"
                                  u"\t<!-- c2 -->\r\n"
                                  u"\t<Empty Id=\"7\" />\r\n"
                                  u"\t<Box>\r\n"
                                  u"v\r\n"
                                  u"\t\t<Lid />\r\n"
                                  u"\t</Box>\r\n"
                                  u"</Shop>\r\n"));
}

TEST(XMLWriterTest, WritesWhatTheTreeHoldsUnchecked) {
  EXPECT_EQ(XML().GetText(), String(prolog) + u"< />\r\n");
  EXPECT_EQ(XML(u"t", u"", u"", u"").GetText(), String(prolog) + u"<t =\"\" />\r\n");

  XML doc(u"t");
  XMLTag* top = doc.TopTag();
  top->AddAttr(u"k", u"1")->AddAttr(u"k", u"a/b>\"");
  top->SetValue(u"\na\r\n\n\r-");
  top->AddComment(u"x --> y");
  top->NestTag(u"blank")->SetValue(u" ");
  top->NestTag(u"lines")->SetValue(u"1\r\n2");
  top->NestTag(u"quiet")->AddComment(u"left out");
  EXPECT_EQ(doc.GetText(), String(prolog) + u"<t k=\"1\" k=\"a/b>\"\">\r\n"
                                            u"<!-- x --> y -->\r\n"
                                            u"[crlf]a[crlf][crlf]\r-\r\n"
                                            u"\t<blank> </blank>\r\n"
                                            u"\t<lines>1\r\n2</lines>\r\n"
                                            u"\t<quiet />\r\n"
                                            u"</t>\r\n");
  EXPECT_EQ(top->GetValue(), String(u"\na\r\n\n\r-"));
  test::TempDir dir;
  EXPECT_EQ(Outcome(doc.Write(dir.File("doc.xml"))), "");
  EXPECT_EQ(dir.Read("doc.xml"), doc.GetText().ToUtf8());
}

TEST(XMLWriterTest, WriteAppendsToTheFileBufferAndWritesUtf8) {
  test::TempDir dir;
  XML doc(u"Grüße", u"Straße 😀", u"lone", u"\xD83D|\xDE00"); // unpaired surrogates go out as U+FFFD
  FormatableTextFile file(dir.File("buffer.xml"));
  file.text = u"before|";
  doc.Write(file);
  doc.Write(file);
  EXPECT_EQ(file.text, String(u"before|") + doc.GetText() + doc.GetText());

  EXPECT_EQ(Outcome(doc.Write(dir.File("doc.xml"))), "");
  EXPECT_EQ(dir.Read("doc.xml"), doc.GetText().ToUtf8());
  EXPECT_EQ(Outcome(doc.Write(dir.File("doc.xml"))), "");
  EXPECT_EQ(dir.Read("doc.xml"), doc.GetText().ToUtf8());
  EXPECT_NE(Outcome(doc.Write(dir.File("no-such-folder/doc.xml"))), "");
}

TEST(XMLWriterTest, WhatTheDialectCanHoldComesBackUnchanged) {
  test::TempDir dir;
  XML doc(u"Lager", u"", u"Version", u"2");
  XMLTag* top = doc.TopTag();
  top->NestTag(u"Leer");
  top->NestTag(u"Wert")->SetValue(u"  Blanks und Ümlaute, 1<2 & 3>1 ");
  XMLTag* deep = top->NestTag(u"Ebene", u"", u"k", u"'einfach'");
  for (int i = 0; i < 6; ++i) deep = deep->NestTag(u"Ebene", u"", u"tiefe", u"ж");
  deep->NestTag(u"Ende", u"λόγος");
  XMLTag* withText = top->NestTag(u"Text");
  withText->NestTag(u"Kind");
  withText->SetValue(u"");

  XML fromText, fromFile;
  EXPECT_EQ(Outcome(fromText.ReadText(doc.GetText())), "");
  EXPECT_EQ(fromText.GetText(), doc.GetText());
  EXPECT_EQ(Outcome(doc.Write(dir.File("round.xml"))), "");
  EXPECT_EQ(Outcome(fromFile.ReadFile(dir.File("round.xml"))), "");
  EXPECT_EQ(Picture(fromFile), Picture(doc));
  EXPECT_EQ(doc.FindUnwritableTag(), nullptr);
}

TEST(XMLWriterTest, WhatTheDialectCannotHoldIsLostOrRefused) {
  struct Case {
    void (*build)(XMLTag& top);
    const char* error;
    const char* tree;
    const char* unwritable; // the tag that FindUnwritableTag names, or "" for none
  } cases[] = {
      {[](XMLTag& t) { t.NestTag(u"a", u"x")->AddComment(u"gone"); }, "", "t{a[x]}", ""},
      {[](XMLTag& t) { t.NestTag(u"a"); t.AddComment(u"line\r\n<b />"); }, "", "t{b a}", "t{a}"},
      {[](XMLTag& t) { t.NestTag(u"t")->NestTag(u"b", u"x", u"k", u"v")->AddComment(u"\n</t>"); }, "", "t{t{b(k=v)[x]}}", ""},
      {[](XMLTag& t) { t.NestTag(u"a"); t.AddComment(u"x\n!--y"); }, "", "t{a}", ""},
      {[](XMLTag& t) { t.NestTag(u"a", u"", u"k", u"v"); t.AddComment(u"x\n!--y"); }, "", "t{a(k=v)}", ""},
      {[](XMLTag& t) { t.NestTag(u"a"); t.AddComment(u"x\n"); }, "Missing end tag for XML data", "t[ -->]", "t{a}"},
      {[](XMLTag& t) { t.NestTag(u"a", u"v")->NestTag(u"b"); }, "Missing end tag for XML data", "t", "a[v]{b}"},
      {[](XMLTag& t) { t.NestTag(u"a", u"", u"k", u"1/2"); }, "Badly formed XML attribute value", "t", "a(k=1/2)"},
      {[](XMLTag& t) { t.NestTag(u"a", u"", u"k", u"say \"hi\""); }, "", "t{a(k=say )}", "a(k=say \"hi\")"},
      {[](XMLTag& t) { t.NestTag(u"a", u"x/>y"); }, "", "t{a}", "a[x/>y]"},
      {[](XMLTag& t) { t.NestTag(u"a/", u"x"); t.NestTag(u"b", u"x</y"); }, "Badly formed end tag in XML data", "t{a/}",
       "a/[x]"},
      {[](XMLTag& t) { t.NestTag(u"a", u"x</y"); }, "Badly formed end tag in XML data", "t", "a[x</y]"},
      {[](XMLTag& t) { t.NestTag(u"a", u"x!--y"); }, "", "t", "a[x!--y]"},
      {[](XMLTag& t) { t.NestTag(u"a b", u"x"); }, "Badly formed end tag in XML data", "t", "a b[x]"},
      {[](XMLTag& t) { t.NestTag(u"", u"x"); }, "Badly formed XML tag name", "t", "[x]"},
      {[](XMLTag& t) { t.NestTag(u"a")->NestTag(u"a", u"x"); }, "Badly placed tag end in XML data", "t{a}", "a[x]"},
      {[](XMLTag& t) { t.NestTag(u"a", u"x\ny"); }, "", "t{a}", "a[x\ny]"},
      {[](XMLTag& t) { t.NestTag(u"a\nb"); }, "Badly formed XML data", "t", "a\nb"},
      {[](XMLTag& t) { t.NestTag(u"a!--"); }, "", "t", "a!--"},
      {[](XMLTag& t) { t.NestTag(u"a/", u"", u"k", u"v")->NestTag(u"b"); }, "", "t{a/(k=v){b}}", ""},
      {[](XMLTag& t) { t.NestTag(u"/a", u"x"); }, "Badly placed tag end in XML data", "t", "/a[x]"},
      {[](XMLTag& t) { t.NestTag(u"a>", u"x"); }, "", "t{a[>x]}", "a>[x]"},
      {[](XMLTag& t) { t.NestTag(u"a</b")->NestTag(u"c"); }, "Badly formed end tag in XML data", "t", "a</b{c}"},
      {[](XMLTag& t) { t.NestTag(u"a/")->NestTag(u"b"); }, "Badly placed tag end in XML data", "t{a/ b}", "a/{b}"},
      {[](XMLTag& t) { t.NestTag(u"a")->AddAttr(u"k\n", u"1"); }, "Badly formed XML data", "t", "a(k\n=1)"},
      {[](XMLTag& t) { t.NestTag(u"a")->AddAttr(u"k", u"x!--y"); }, "", "t", "a(k=x!--y)"},
      {[](XMLTag& t) { t.NestTag(u"a")->AddAttr(u"k=", u"1"); }, "", "t{a(k=1)}", "a(k==1)"},
      {[](XMLTag& t) { t.NestTag(u"a")->AddAttr(u" k", u"1"); }, "", "t{a(k=1)}", "a( k=1)"},
  };
  test::TempDir dir;
  for (const Case& c : cases) {
    XML doc(u"t");
    c.build(*doc.TopTag());
    // The file gets the text's bytes, whatever the text holds.
    EXPECT_EQ(Outcome(doc.Write(dir.File("doc.xml"))), "");
    EXPECT_EQ(dir.Read("doc.xml"), doc.GetText().ToUtf8());
    XML back;
    EXPECT_EQ(Outcome(back.ReadText(doc.GetText())), c.error) << doc.GetText().ToUtf8();
    EXPECT_EQ(Picture(back), c.tree) << doc.GetText().ToUtf8();
    String why;
    const XMLTag* unwritable = doc.FindUnwritableTag(&why);
    EXPECT_EQ(unwritable ? Picture(*unwritable) : "", c.unwritable) << doc.GetText().ToUtf8();
    EXPECT_EQ(why.IsEmpty(), unwritable == nullptr);
  }
}

} // namespace
} // namespace QOR
