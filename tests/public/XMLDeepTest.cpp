// Trees far deeper than any thread stack could follow by recursion. Under Wine the main thread has
// 1 MB of stack, so these also run there.
#include <qorxmlu/xml/XML.h>

#include "TempDir.h"
#include "XMLTestSupport.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

using test::Outcome;

constexpr std::size_t million = 1000000;

// Levels below the top tag, following the first nested tag; the deepest tag goes to deepest.
std::size_t Depth(const XML& doc, XMLTag** deepest = nullptr) {
  std::size_t depth = 0;
  XMLTag* tag = doc.TopTag();
  while (tag->NoOfNestedTags()) {
    tag = tag->GetNestedTag(0);
    ++depth;
  }
  if (deepest) *deepest = tag;
  return depth;
}

TEST(XMLDeepTest, AMillionLevelsAreCopiedSearchedCheckedAndDestroyed) {
  XML doc(u"top");
  XMLTag* deepest = doc.TopTag();
  for (std::size_t i = 0; i < million; ++i) deepest = deepest->NestTag(u"n");
  deepest->SetValue(u"bottom");
  EXPECT_TRUE(doc.TopTag()->IsParentOf(deepest));
  EXPECT_FALSE(deepest->IsParentOf(doc.TopTag()));
  EXPECT_EQ(doc.FindUnwritableTag(), deepest); // a one-line "n" inside an "n"

  XML copy(doc);
  XMLTag* copiedDeepest = nullptr;
  EXPECT_EQ(Depth(copy, &copiedDeepest), million);
  EXPECT_EQ(copiedDeepest->GetValue(), String(u"bottom"));
  EXPECT_FALSE(doc.TopTag()->IsParentOf(copiedDeepest));

  XMLTag* middle = copy.TopTag()->GetNestedTag(0);
  for (int i = 0; i < 1000; ++i) middle = middle->GetNestedTag(0);
  middle->NestTag(copy.TopTag()); // a snapshot of the whole tree inside itself
  middle->Remove();
  EXPECT_EQ(Depth(copy), 1000u);
  doc.TopTag()->Remove();
  EXPECT_EQ(Depth(doc), 0u);
}

TEST(XMLDeepTest, AMillionLevelsAreReadFromTextAndFile) {
  String text(u"<?xml version=\"1.0\"?>\n");
  for (std::size_t i = 0; i < million; ++i) text << u"<n>\n";
  text << u"<leaf a=\"1\">x</leaf>\n";
  for (std::size_t i = 0; i < million; ++i) text << u"</n>\n";

  XML fromText;
  EXPECT_EQ(Outcome(fromText.ReadText(text)), "");
  XMLTag* leaf = nullptr;
  EXPECT_EQ(Depth(fromText, &leaf), million);
  EXPECT_EQ(test::Picture(*leaf), "leaf(a=1)[x]");

  test::TempDir dir;
  text.Std().resize(text.Len() - 5); // the top tag's end is missing; all below it is complete
  XML fromFile;
  EXPECT_EQ(Outcome(fromFile.ReadFile(dir.Write("deep.xml", text.ToUtf8()))), "Badly formed XML data");
  EXPECT_EQ(Depth(fromFile), million);
}

TEST(XMLDeepTest, ADeepTreeIsWrittenAndReadBack) {
  // Every level adds a tab to its lines, so the text grows with the square of the depth; a few
  // thousand levels already overrun a 1 MB stack in a recursive writer.
  constexpr std::size_t depth = 5000;
  XML doc(u"top");
  XMLTag* tag = doc.TopTag();
  // Names alternate: a one-line tag inside a tag of its own name would end that tag.
  for (std::size_t i = 0; i < depth; ++i) tag = tag->NestTag(i % 2 ? u"a" : u"b", u"", u"level", u"x");
  tag->SetValue(u"v");
  const String text = doc.GetText();
  // Level i has a start and an end line of i tabs each, 21 more units; the deepest one line.
  EXPECT_EQ(text.Len(), depth * depth + 21 * depth + 37);
  XML back;
  EXPECT_EQ(Outcome(back.ReadText(text)), "");
  EXPECT_EQ(back.GetText(), text);
  // Over 1 MB, so the file is written block by block.
  test::TempDir dir;
  XML fromFile;
  EXPECT_EQ(Outcome(doc.Write(dir.File("deep.xml"))), "");
  EXPECT_EQ(Outcome(fromFile.ReadFile(dir.File("deep.xml"))), "");
  EXPECT_EQ(fromFile.GetText(), text);
}

} // namespace
} // namespace QOR
