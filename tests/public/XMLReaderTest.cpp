#include <qorxmlu/xml/XML.h>

#include "TempDir.h"
#include "XMLTestSupport.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace QOR {
namespace {

using test::Document;
using test::Outcome;
using test::Picture;

const char* const attrValue = "Badly formed XML attribute value";
const char* const missingEnd = "Missing end tag for XML data";
const char* const badData = "Badly formed XML data";
const char* const badName = "Badly formed XML tag name";
const char* const badEnd = "Badly formed end tag in XML data";

struct Case {
  std::vector<const char16_t*> lines; // behind the prolog
  const char* error;                  // "" for success
  const char* tree;                   // the top tag afterwards
};

void Check(const Case& c) {
  String text(u"<?xml version=\"1.0\"?>\r\n");
  for (const char16_t* line : c.lines) text << line << u"\r\n";
  SCOPED_TRACE(text.ToUtf8());
  XML doc;
  EXPECT_EQ(Outcome(doc.ReadText(text)), c.error);
  EXPECT_EQ(Picture(doc), c.tree);
  // A file is read from its bytes, apart from the text's units.
  static const test::TempDir dir;
  XML fromFile;
  EXPECT_EQ(Outcome(fromFile.ReadFile(dir.Write("case.xml", text.ToUtf8()))), c.error);
  EXPECT_EQ(Picture(fromFile), c.tree);
}

TEST(XMLReaderTest, StartLinesAndAttributes) {
  const Case cases[] = {
      {{u"<a/>"}, "", "a/"},
      {{u"<a />"}, "", "a"},
      {{u"\t<a\tb=\"c\" />  "}, "", "a(b=c)"},
      {{u"<a b=\"c/d\" />"}, attrValue, "a"},
      {{u"<a b=\"c>d\" />"}, attrValue, "a"},
      {{u"<a b=c>x</a>"}, attrValue, "a"},
      {{u"<a b='c\"d' e=\"f'g\">x</a>"}, "", "a(b=c\"d,e=f'g)[x]"},
      {{u"<a b = \"c\">x</a>"}, "", "a(b =c)[x]"},
      {{u"<a   b= junk 'c'  d=\"e\"/>"}, "", "a(b=c,d=e)"},
      {{u"<a b>x</a>"}, "", "a[x]"},
      {{u"<a b=\"c\" d>x</a>"}, "", "a(b=c)[x]"},
      {{u"<a b=\"1\" / c=\"2\">x</a>"}, "", "a(b=1)[x]"},
      {{u"<a b=\"1\" c=>x</a>"}, attrValue, "a(b=1)"},
      {{u"<a abcdefgh=\"1\" axcdefgh=\"2\" />"}, "", "a(abcdefgh=1,axcdefgh=2)"},
      {{u"<a>1<2</a>"}, "", "a[1<2]"},
      {{u"<a>1>0 &amp; [crlf]</a>"}, "", "a[1>0 &amp; [crlf]]"},
      {{u"<a> v </a>"}, "", "a[ v ]"},
      {{u"<a>x!-y</a>"}, "", "a[x!-y]"},
      {{u"<a></a>"}, "", "a"},
      {{u"<a>x/>y</a>"}, "", "a"},
      {{u"<a><b>x</b></a>"}, badEnd, "a"},
      {{u"<a>x</ab>"}, badEnd, "a"},
      {{u"<ab>x</a>"}, badEnd, "ab"},
      {{u"<a </a>"}, "", "a"},
      {{u"<a>x</a><b>y</b>"}, "", "a[x]"},
      {{u"<Grüße 名=\"Ωmega\">Straße</Grüße>"}, "", "Grüße(名=Ωmega)[Straße]"},
      {{u"</a>"}, "Badly placed tag end in XML data", ""},
      {{u"< a>x</a>"}, badName, ""},
      {{u"<>x"}, badName, ""},
      {{u"a"}, "Missing tag start in XML data", ""},
      {{u"<a"}, badData, ""},
      {{u"> <a"}, badData, ""},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XMLReaderTest, TagsOverSeveralLines) {
  const Case cases[] = {
      {{u"<a>", u"<b>x</b></a>"}, "", "a"},
      {{u"<a>", u"<b>x</b>"}, badData, "a{b[x]}"},
      {{u"<a>text", u"</a>"}, "", "a"},
      {{u"<a>", u"  text  ", u"</a>"}, "", "a[  text  ]"},
      {{u"<a>", u"x", u"y", u"</a>"}, missingEnd, "a[x]"},
      {{u"<a>", u"<b />", u"text", u"</a>"}, "", "a[text]{b}"},
      {{u"<a>", u"text", u"<b />", u"</a>"}, missingEnd, "a[text]"},
      {{u"<a>", u"   ", u"<b />", u"</a>"}, missingEnd, "a[   ]"},
      {{u"<a>", u"text"}, badData, "a[text]"},
      {{u"<a>"}, badData, "a"},
      {{u"<!DOCTYPE a>", u"<a />"}, badData, "!DOCTYPE{a}"},
      {{u"<a>", u"<b>", u"</a>"}, "Badly placed tag end in XML data", "a"},
      {{u"<a>", u"  </a> and more"}, "", "a"},
      {{u"<a>", u"<b>x!--y</b>", u"", u"<!-- c -->", u"<c>", u"<d />", u"</c>", u"</a>", u"<<junk"},
       "",
       "a{c{d}}"},
      {{u"<a>", u"<b k=\"1\" />", u"<c>", u"<d>x</d>", u"<e", u"</c>", u"</a>"}, badData, "a{b(k=1)}"},
      {{u"<A>", u"<B X=\"1\">", u"<C />", u"<D>", u"<E />", u"</A>"}, "Badly placed tag end in XML data", "A"},
      {{u"<A>", u"<B />", u"<C>", u"<D />", u"x", u"y", u"</C>", u"</A>"}, missingEnd, "A{B}"},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XMLReaderTest, PrologAndEmptyData) {
  struct Prolog {
    const char16_t* text;
    const char* error;
  } cases[] = {
      {u"", "Empty XML data"},
      {u"\r\n\r\n<!-- only -->\r\n<?xml version=\"1.0\"?>\r\n", "Empty XML data"},
      {u"<?xml version=\"1.0\"?><a>x</a>", "Empty XML data"},
      {u"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a />", ""},
      {u"junk <?xml version=\"1.0\"?>\n<a />", ""},
      {u"<?xml version=\"1.0\"?><b />\n<a />", ""},
      {u"<?xml version='1.0'?>\n<a />", "Unrecognised XML version"},
      {u"<?xml version=\"1.1\"?>\n<a />", "Unrecognised XML version"},
      {u"<a>\n</a>", "Unrecognised XML version"},
      {u"<?xml version=\"1.0\"?>\n  \n<a />", "Missing tag start in XML data"},
  };
  for (const Prolog& c : cases) {
    XML doc;
    EXPECT_EQ(Outcome(doc.ReadText(c.text)), c.error) << String(c.text).ToUtf8();
  }
}

TEST(XMLReaderTest, AttributeNamesLoseWhatStringTrimsFromTheirFront) {
  for (char16_t blank : {u' ', u'\r', u'\v', u'\f', u'\u00A0', u'\u2003', u'\u3000'}) {
    const std::u16string name = std::u16string(1, blank) + u"b";
    String expected(name);
    expected.TrimLeft();
    const std::u16string line = u"<a x=\"1\"" + name + u"=\"2\" />";
    XML doc;
    EXPECT_EQ(Outcome(doc.ReadText(Document({line.c_str()}))), "") << int(blank);
    EXPECT_EQ(doc.TopTag()->GetAttrName(1), expected) << int(blank);
  }
}

// The top tag's value and comment outlive every read that gives none, and a failed read keeps the
// attributes read before the failure: all of them must outlast the storage of the read.
TEST(XMLReaderTest, AReadReplacesTheTreeButSparesTheTopTagsOwnFields) {
  XML doc(u"old", u"old value", u"k", u"v");
  doc.TopTag()->AddComment(u"kept");
  doc.TopTag()->NestTag(u"gone");
  XMLTag* top = doc.TopTag();
  EXPECT_EQ(Outcome(doc.ReadText(Document({u"<new x=\"1\">", u"<n />", u"</new>"}))), "");
  EXPECT_EQ(Picture(doc), "new(x=1)[old value]{n}");
  EXPECT_EQ(doc.TopTag(), top);
  EXPECT_EQ(top->GetComment(), String(u"kept"));
  EXPECT_EQ(top->GetNestedTag(0)->GetComment(), String());

  EXPECT_EQ(Outcome(doc.ReadText(Document({u"<Next C=\"3\" D=\"x/y\">", u"</Next>"}))), attrValue);
  EXPECT_EQ(Picture(doc), "Next(C=3)[old value]");
  EXPECT_EQ(Outcome(doc.ReadText(u"nothing")), "Empty XML data");
  EXPECT_EQ(Picture(doc), "Next[old value]");

  XML copy(doc);
  doc.TopTag()->Remove();
  EXPECT_EQ(Outcome(copy.ReadText(Document({u"<Last>", u"</Last>"}))), "");
  EXPECT_EQ(Picture(copy), "Last[old value]");
  EXPECT_EQ(copy.TopTag()->GetComment(), String(u"kept"));
}

class XMLFileTest : public ::testing::Test {
protected:
  test::TempDir dir;
};

TEST_F(XMLFileTest, AFileReadsAsItsText) {
  const std::string texts[] = {
      "<?xml version=\"1.0\"?>\n<a k=\"Grüße\">\r\n\t<b>x</b>\n\n<!-- c -->\n</a>\n",
      "\xEF\xBB\xBF<?xml version=\"1.0\"?>\r\n<a>\r\n\ttext \r\n</a>",
      "<?xml version=\"1.0\"?>\n<a>\n<b>\n</a>\n",
      "<?xml version=\"1.0\"?>\n",
      // A byte that is no UTF-8 reads as U+FFFD in the start tag and in the end tag alike.
      "<?xml version=\"1.0\"?>\n<a\x7F\xFF>v</a\x7F\xFF>\n",
      // End tags beyond ASCII that match or not; a value kept as bytes beside nested tags; a name
      // longer than the name table takes and a start tag longer than the attribute scan's bits.
      "<?xml version=\"1.0\"?>\n<t>\n<ab>x</\xC3\xA9>\n<\xC3\xA9>x</ab>\n</t>\n",
      "<?xml version=\"1.0\"?>\n<t>\n<\xC3\xA9" "a>x</\xC3\xA9" "b>\n</t>\n",
      "<?xml version=\"1.0\"?>\n<t>\n<\xC3\xA9>x</\xC3\xA9>\n<a>\n<b />\nGr\xC3\xBC\xC3\x9F" "e\n</a>\n</t>\n",
      "<?xml version=\"1.0\"?>\n<t>\n<" + std::string(70, 'n') + " k=\"" + std::string(300, 'v') + "\">x</" +
          std::string(70, 'n') + ">\n</t>\n",
      "<?xml version=\"1.0\"?>\n<t>\n<a>\n<b />\n<c>\n",
  };
  for (const std::string& bytes : texts) {
    XML fromFile, fromText;
    const std::string fileOutcome = Outcome(fromFile.ReadFile(dir.Write("doc.xml", bytes)));
    const std::string textOutcome = Outcome(fromText.ReadText(String::FromUtf8(bytes.substr(
        bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0))));
    EXPECT_EQ(fileOutcome, textOutcome) << bytes;
    EXPECT_EQ(Picture(fromFile), Picture(fromText)) << bytes;
    // Texts kept as the file's bytes go out as the UTF-8 of the text.
    EXPECT_EQ(Outcome(fromFile.Write(dir.File("back.xml"))), "");
    EXPECT_EQ(dir.Read("back.xml"), fromFile.GetText().ToUtf8()) << bytes;
  }
  // Behind a UTF-16 mark, little or big endian, the file layer decodes the lines.
  const std::u16string text = u"<?xml version=\"1.0\"?>\r\n<a k=\"\u0416\">\n\n<!-- c -->\r\n\t<b>x\U0001F600</b>\n</a>";
  for (const bool bigEndian : {false, true}) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char16_t unit : text) {
      const char low = static_cast<char>(unit & 0xFF), high = static_cast<char>(unit >> 8);
      bytes += bigEndian ? high : low;
      bytes += bigEndian ? low : high;
    }
    XML fromFile;
    EXPECT_EQ(Outcome(fromFile.ReadFile(dir.Write("doc16.xml", bytes))), "");
    EXPECT_EQ(Picture(fromFile), "a(k=\u0416){b[x\U0001F600]}") << bigEndian;
  }
}

TEST_F(XMLFileTest, TextsKeptAsTheFilesBytesAnswerAsUnits) {
  XML doc;
  ASSERT_EQ(Outcome(doc.ReadFile(dir.Write("doc.xml", "<?xml version=\"1.0\"?>\n<a>\n<b k=\"Größe\">Grüße and ASCII beyond sixteen</b>\n"
                                                                 "<c k=\"Grüß\">yes</c>\n<d k=\"\xE2\x82\xAC\">\xFF</d>\n</a>\n"))),
            "");
  const XMLTag* top = doc.TopTag();
  std::size_t index = 9;
  EXPECT_EQ(top->FindNestedTagOnValue(u"Grüße and ASCII beyond sixteen", &index), top->GetNestedTag(0));
  EXPECT_EQ(top->FindNestedTagOnValue(u"Grüß"), nullptr);
  EXPECT_EQ(top->FindNestedTagOnAttrValue(u"Grüß", 0, &index), top->GetNestedTag(1));
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(top->FindNestedTagOnAttrValue(u"\u20AC", 0), top->GetNestedTag(2));
  bool flag = false;
  *top->GetNestedTag(1) >> flag;
  EXPECT_TRUE(flag);
  EXPECT_EQ(top->GetNestedTag(0)->GetAttrVal(0), String(u"Größe"));
  EXPECT_EQ(top->GetNestedTag(2)->GetValue(), String(u"\uFFFD"));
  // A copy shares them; a change of one tag's value is that tag's alone.
  XML copy(doc);
  copy.TopTag()->GetNestedTag(0)->SetValue(u"neu");
  EXPECT_EQ(Picture(copy), "a{b(k=Größe)[neu] c(k=Grüß)[yes] d(k=\u20AC)[\uFFFD]}");
  EXPECT_EQ(Picture(doc), "a{b(k=Größe)[Grüße and ASCII beyond sixteen] c(k=Grüß)[yes] d(k=\u20AC)[\uFFFD]}");
  EXPECT_EQ(doc.FindUnwritableTag(), nullptr);
  // A quote in a value kept as bytes is seen by the check as in any other.
  ASSERT_EQ(Outcome(doc.ReadFile(dir.Write("quote.xml", "<?xml version=\"1.0\"?>\n<t>\n<a b='c\"\xC3\xA9'>x</a>\n</t>\n"))), "");
  EXPECT_EQ(doc.FindUnwritableTag(), doc.TopTag()->GetNestedTag(0));
}

// Generated lines of every length around the reader's 16-, 32- and 64-byte steps, with markers,
// attributes, repeated names and text beyond ASCII at every offset: a file (read from its bytes,
// with or without a byte order mark) and the same text (read from its units) give the same tree,
// the same error and the same text when written again.
TEST_F(XMLFileTest, FilesAndTextsAgreeOnGeneratedLines) {
  const char16_t* const pieces[] = {u"a", u"bcdefgh", u" ", u"/", u">", u"<", u"=", u"\"", u"'", u"\u00e9",
                                    u"\u00df\u20ac", u"\U0001F600", u"!--", u"</", u"/>", u" k=\"1\"", u"\t"};
  const char16_t* const names[] = {u"n", u"name", u"\u00e9l\u00e9ment", u"a-rather-long-tag-name-of-forty-letters-x"};
  std::mt19937 random(7);
  auto some = [&](unsigned most) {
    std::u16string text;
    for (unsigned n = random() % most; n > 0; --n) text += pieces[random() % std::size(pieces)];
    return text;
  };
  for (int round = 0; round < 300; ++round) {
    String text(u"<?xml version=\"1.0\"?>\r\n<t>\r\n");
    for (unsigned line = random() % 6; line > 0; --line) {
      std::u16string name = names[random() % std::size(names)];
      std::u16string head = u"<" + name + (random() % 2 ? u" b=\"" + some(8) + u"\"" : u"") + some(3);
      text << (random() % 4 ? head + u">" + some(40) + u"</" + name + u">" : head + u" />") << u"\r\n";
    }
    text << u"</t>\r\n";
    SCOPED_TRACE(text.ToUtf8());
    XML fromText, fromFile;
    const std::string error = Outcome(fromText.ReadText(text));
    EXPECT_EQ(Outcome(fromFile.ReadFile(dir.Write("gen.xml", (round % 2 ? "\xEF\xBB\xBF" : "") + text.ToUtf8()))), error);
    EXPECT_EQ(Picture(fromFile), Picture(fromText));
    EXPECT_EQ(fromFile.GetText(), fromText.GetText());
  }
}

TEST_F(XMLFileTest, AMissingFileOrAFolderLeavesTheDocumentCleared) {
  for (const String& path : {dir.File("missing.xml"), dir.File("")}) {
    XML doc(u"name", u"value", u"k", u"v");
    doc.TopTag()->NestTag(u"n");
    EXPECT_NE(Outcome(doc.ReadFile(path)), "") << path.ToUtf8();
    EXPECT_EQ(Picture(doc), "name[value]");
  }
}

} // namespace
} // namespace QOR
