#include <qorxmlu/xml/XML.h>

#include "XMLTestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

using test::Picture;

// A document whose top tag t holds A B C D.
struct Abcd : ::testing::Test {
  Abcd() {
    for (const char16_t* name : {u"A", u"B", u"C", u"D"}) top->NestTag(name);
  }
  XML doc{u"t"};
  XMLTag* top = doc.TopTag();
};

TEST(XMLTagTest, AttributesAreKeptAsGivenAndInOrder) {
  XML doc(u"t");
  XMLTag* top = doc.TopTag();
  EXPECT_EQ(top->NestTag(u"a", u"", u"", u"value")->NoOfAttributes(), 0u);
  top->AddAttr(u"", u"value")->AddAttr(u"k", u"1")->AddAttr(u"k", u"2");
  EXPECT_EQ(Picture(doc), "t(=value,k=1,k=2){a}");
  top->SetAttrName(0, u"n");
  top->SetAttrValue(2, u"3");
  top->RemoveAttr(1);
  top->SetAttrName(2, u"x"); // an index from the count on names no attribute
  top->SetAttrValue(2, u"x");
  top->RemoveAttr(2);
  EXPECT_EQ(top->GetAttrName(2) + top->GetAttrVal(2), String());
  EXPECT_EQ(Picture(doc), "t(n=value,k=3){a}");
  top->AddComment(u"one");
  top->AddComment(u"two");
  EXPECT_EQ(top->GetComment(), String(u"two"));
}

TEST(XMLTagTest, TypedValuesGoThroughTheText) {
  // Where a String goes in, a literal or a std::string does too.
  const std::string utf8 = "Grüße";
  XML doc("T", utf8);
  XMLTag& tag = *doc.TopTag();
  EXPECT_EQ(tag.GetValue(), u"Grüße");
  XMLTag* item = tag.NestTag("Item", "  1 \t", "id", utf8); // values are trimmed only when a tag is made
  EXPECT_EQ(item->GetAttrVal(0), u"Grüße");
  EXPECT_EQ(item->GetValue(), u"1");
  struct {
    void (*set)(XMLTag&);
    const char16_t* value;
  } rows[] = {{[](XMLTag& t) { t << "Grüße"; }, u"Grüße"},
              {[](XMLTag& t) { t << String(u"s"); }, u"s"},
              {[](XMLTag& t) { t << L"w"; }, u"w"},
              {[](XMLTag& t) { t << u" y "; }, u" y "}, // a text, not a bool, and not trimmed
              {[](XMLTag& t) { t << -7L; }, u"-7"},
              {[](XMLTag& t) { t << -42; }, u"-42"},
              {[](XMLTag& t) { t << 4000000000u; }, u"4000000000"},
              {[](XMLTag& t) { t << 2.0; }, u"2"},
              {[](XMLTag& t) { t << -0.25; }, u"-0.25"},
              {[](XMLTag& t) { t << 0.123456789012345; }, u"0.123456789012345"},
              {[](XMLTag& t) { t << true; }, u"yes"},
              {[](XMLTag& t) { t << false; }, u"no"}};
  for (const auto& row : rows) {
    row.set(tag);
    EXPECT_EQ(tag.GetValue(), row.value);
  }
  tag.SetValue(" 12 ");
  int number = 0;
  long wide = 0;
  unsigned int count = 0;
  double real = 0;
  String text;
  tag >> number;
  tag >> wide;
  tag >> count;
  tag >> real;
  tag >> text;
  EXPECT_EQ(number, 12);
  EXPECT_EQ(wide, 12);
  EXPECT_EQ(count, 12u);
  EXPECT_EQ(real, 12.0);
  EXPECT_EQ(text, u" 12 ");
  tag.SetValue(u"no number");
  tag >> number;
  EXPECT_EQ(number, 12);
  bool flag = true;
  for (const char16_t* word : {u"", u"no", u"Yes", u"1"}) {
    tag.SetValue(word);
    tag >> flag;
    EXPECT_FALSE(flag) << String(word).ToUtf8();
  }
  tag.SetName("Renamed");
  EXPECT_EQ(tag.GetName(), u"Renamed");
}

TEST_F(Abcd, NestTagBeforeIndexInsertsOrAppends) {
  top->NestTagBeforeIndex(u"X", 0);
  top->NestTagBeforeIndex(u"Y", 99);
  top->NestTagBeforeIndex(u"Z", 6);
  EXPECT_EQ(Picture(doc), "t{X A B C D Y Z}");
  XML empty(u"e");
  empty.TopTag()->NestTagBeforeIndex(u"only", 0);
  EXPECT_EQ(Picture(empty), "e{only}");
}

TEST_F(Abcd, FindTakesTheLowestDirectHitAndLeavesTheIndexOnAMiss) {
  top->GetNestedTag(1)->SetName(u"A");
  top->GetNestedTag(2)->SetValue(u"v");
  top->GetNestedTag(3)->SetValue(u"v");
  top->GetNestedTag(3)->NestTag(u"deep");
  for (std::size_t i = 0; i < 4; ++i) top->GetNestedTag(i)->AddAttr(u"x", i == 2 ? u"hit" : u"miss");
  std::size_t index = 77;
  EXPECT_EQ(top->FindNestedTag(u"A", &index), top->GetNestedTag(0));
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(top->FindNestedTagOnValue(u"v", &index), top->GetNestedTag(2));
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(top->FindNestedTagOnAttrValue(u"hit", 0, &index), top->GetNestedTag(2));
  index = 77;
  EXPECT_EQ(top->FindNestedTag(u"deep", &index), nullptr);
  EXPECT_EQ(top->FindNestedTagOnValue(u"none", &index), nullptr);
  EXPECT_EQ(top->FindNestedTagOnAttrValue(u"hit", 1, &index), nullptr);
  EXPECT_EQ(top->FindNestedTagOnAttrValue(u"hit", -1, &index), nullptr);
  EXPECT_EQ(index, 77u);
  EXPECT_NE(top->FindNestedTag(u"D"), nullptr);
  EXPECT_EQ(top->GetNestedTag(4), nullptr);
  EXPECT_EQ(top->GetNestedTag(3)->GetNestedTag(0)->GetNestedTag(0), nullptr);
}

TEST_F(Abcd, MoveAndReplaceCountIndicesBeforeTheMove) {
  struct Case {
    bool replace;
    std::size_t from, to;
    const char* result;
  } cases[] = {
      {false, 0, 2, "t{B A C D}"}, {false, 0, 4, "t{B C D A}"}, {false, 3, 0, "t{D A B C}"},
      {false, 1, 1, "t{A B C D}"}, {false, 1, 2, "t{A B C D}"}, {true, 0, 2, "t{B A D}"},
      {true, 3, 1, "t{A D C}"}, {true, 1, 4, "t{A B C D}"}, {true, 4, 1, "t{A B C D}"},
      {true, 2, 2, "t{A B C D}"}, {false, 4, 0, "t{A B C D}"},
  };
  for (const Case& c : cases) {
    XML copy(doc);
    if (c.replace) copy.TopTag()->ReplaceNestedTag(c.from, c.to);
    else copy.TopTag()->MoveNestedTag(c.from, c.to);
    EXPECT_EQ(Picture(copy), c.result) << c.replace << c.from << c.to;
  }
}

TEST_F(Abcd, RemoveUnlinksANestedTagAndClearsATopTag) {
  top->GetNestedTag(1)->NestTag(u"under");
  top->GetNestedTag(1)->Remove();
  EXPECT_EQ(Picture(doc), "t{A C D}");
  top->SetValue(u"v");
  top->AddComment(u"c");
  top->AddAttr(u"k", u"1");
  top->Remove();
  EXPECT_EQ(Picture(doc), "t[v]");
  EXPECT_EQ(top->GetComment(), String(u"c"));
  EXPECT_EQ(doc.TopTag(), top);
}

TEST_F(Abcd, IsParentOfLooksAtEveryDepth) {
  XMLTag* b = top->GetNestedTag(1);
  XMLTag* grandchild = b->NestTag(u"g")->NestTag(u"gg");
  EXPECT_TRUE(top->IsParentOf(grandchild));
  EXPECT_TRUE(b->IsParentOf(grandchild));
  EXPECT_FALSE(top->GetNestedTag(0)->IsParentOf(grandchild));
  EXPECT_FALSE(top->IsParentOf(top));
  EXPECT_FALSE(b->IsParentOf(top));
  EXPECT_FALSE(top->IsParentOf(nullptr));
  EXPECT_TRUE(grandchild->IsChildOf(top));
  EXPECT_TRUE(top->IsChildOf(grandchild));
}

TEST_F(Abcd, NestingACopyOfItselfTakesOneSnapshot) {
  top->GetNestedTag(0)->NestTag(u"a1");
  XMLTag* copy = top->NestTag(top);
  EXPECT_EQ(Picture(doc), "t{A{a1} B C D t{A{a1} B C D}}");
  copy->GetNestedTag(0)->NestTag(top->GetNestedTag(0));
  EXPECT_EQ(Picture(*copy), "t{A{a1 A{a1}} B C D}");
}

} // namespace
} // namespace QOR
