#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <string_view>

namespace QOR {
namespace {

TEST(StringTest, ConstructsFromEveryHostForm) {
  const String expected(u"Grüße");
  const std::string utf8 = "Grüße";
  for (const String& text : {String("Grüße"), String(utf8), String(std::string_view(utf8)), String(u8"Grüße"),
                             String(std::u8string_view(u8"Grüße")), String(L"Grüße"), String(u"Grüße und mehr", 5),
                             String::FromUtf8("Gr\xC3\xBC\xC3\x9F" "e")})
    EXPECT_EQ(text, expected);
  EXPECT_EQ(expected.ToUtf8(), utf8);
  EXPECT_TRUE(String(static_cast<const char*>(nullptr)).IsEmpty());
  EXPECT_TRUE(String(static_cast<const char16_t*>(nullptr)).IsEmpty());
  EXPECT_TRUE(String(static_cast<const wchar_t*>(nullptr)).IsEmpty());
  EXPECT_TRUE(GetEmptyString().IsEmpty());
  EXPECT_EQ(String("\xff"), String(u"\ufffd")) << "bad UTF-8 decodes to U+FFFD";
  EXPECT_EQ(String::FromAscii("plain"), u"plain");
  String text;
  text = "ä";
  EXPECT_EQ(text, u"ä");
  text = L"ö";
  text += "ü";
  text << "!" << String(u"?");
  EXPECT_EQ(text, u"öü!?");
  // Beyond the BMP: a surrogate pair in the String, one unit in a 4-byte wchar_t.
  EXPECT_EQ(String(L"\U0001F600").Len(), 2u);
  EXPECT_EQ(String(L"x\U0001F600\U0010FFFF"), String(u"x\U0001F600\U0010FFFF"));
  EXPECT_EQ(String(u"x\U0001F600\U0010FFFF").ToWide(), std::wstring(L"x\U0001F600\U0010FFFF"));
  if constexpr (sizeof(wchar_t) == 4) { // no code point beyond U+10FFFF; no UTF-32 form of a lone surrogate
    EXPECT_EQ(String(std::wstring(1, wchar_t(0x110000)).c_str()), String(u"\uFFFD"));
    EXPECT_EQ(String(u"a\xDBFF" u"b\xDC00").ToWide(), std::wstring(L"a\xFFFD" L"b\xFFFD"));
  }
}

TEST(StringTest, SubstringsAndSearch) {
  String text(u"<tag attr=\"1\">value</tag>");
  EXPECT_EQ(text.Find(u"<"), 0);
  EXPECT_EQ(text.Find(u"</"), 19);
  EXPECT_EQ(text.Find(u"<", 1), 19);
  EXPECT_EQ(text.Find(u"missing"), -1);
  EXPECT_EQ(text.Find(u"", 3), 3);
  EXPECT_EQ(text.Find(u"x", 1000), -1);
  EXPECT_EQ(text.Left(4), String(u"<tag"));
  EXPECT_EQ(text.Left(1000), text);
  EXPECT_EQ(text.Mid(14, 5), String(u"value"));
  EXPECT_EQ(text.Mid(19), String(u"</tag>"));
  EXPECT_TRUE(text.Mid(1000).IsEmpty());
}

TEST(StringTest, TrimsBlanksInPlace) {
  String both(u" \t a b \r\n");
  both.TrimAll();
  EXPECT_EQ(both, String(u"a b"));
  String left(u"  a b  ");
  left.TrimLeft();
  EXPECT_EQ(left, String(u"a b  "));
  String blanks(u" \t ");
  blanks.TrimAll();
  EXPECT_TRUE(blanks.IsEmpty());
}

TEST(StringTest, AppendsNumbersAndLineEnds) {
  String text;
  text << u"n=" << -42 << u" u=" << 4000000000u << u" l=" << LONG_MIN << newline;
  text << (-9223372036854775807LL - 1) << u" " << 18446744073709551615ULL << u" " << 4000000000UL;
  EXPECT_EQ(text, String(u"n=-42 u=4000000000 l=") + String::FromUtf8(std::to_string(LONG_MIN)) +
                      u"\r\n-9223372036854775808 18446744073709551615 4000000000");
}

TEST(StringTest, FormatsDoublesWithManipulatorsForOneNumberOnly) {
  auto shown = [](double number) {
    String text;
    text << trunczero << whole(1) << dec(15) << number;
    return text;
  };
  EXPECT_EQ(shown(2.5), String(u"2.5"));
  EXPECT_EQ(shown(3.0), String(u"3"));
  EXPECT_EQ(shown(0.1), String(u"0.1"));
  EXPECT_EQ(shown(-0.25), String(u"-0.25"));
  EXPECT_EQ(shown(1234567.125), String(u"1234567.125"));
  String two;
  two << dec(2) << 1.0 << u" " << 1.5;
  EXPECT_EQ(two, String(u"1.00 1.5")); // the format applied to the first number only
  String padded;
  padded << whole(3) << dec(1) << 7.25;
  EXPECT_EQ(padded, String(u"007.2"));
  padded << whole(3) << dec(1) << -7.25;
  EXPECT_EQ(padded, String(u"007.2-007.2")); // the sign goes before the padding
  String formatted;
  formatted.AppendDouble(2.5, DoubleFormat() += dec(3));
  EXPECT_EQ(formatted, u"2.500");
}

// What text >> number leaves in a number that held before.
template <class Number>
Number Read(const char16_t* text, Number before) {
  String(text) >> before;
  return before;
}

TEST(StringTest, ConvertsNumbersAndLeavesTargetOnBadText) {
  EXPECT_EQ(Read(u"  -12xyz", 7), -12);
  EXPECT_EQ(Read(u"abc", 7), 7);
  EXPECT_EQ(Read(u"", 7), 7);
  EXPECT_EQ(Read(u"99999999999", 7), 7); // out of range
  EXPECT_EQ(Read(u"-1", 5u), 5u);
  EXPECT_EQ(Read(u"+17", 5u), 17u);
  EXPECT_EQ(Read(u"2147483647", 0L), 2147483647L);
  EXPECT_EQ(Read(u" 2.5e3 ", 0.0), 2500.0);
  EXPECT_EQ(Read(u"-.5", 0.0), -0.5);
  EXPECT_EQ(Read(u"e5", -0.5), -0.5);
  EXPECT_EQ(Read(u"-9223372036854775808", 0LL), -9223372036854775807LL - 1);
  EXPECT_EQ(Read(u"18446744073709551615", 0ULL), 18446744073709551615ULL);
  EXPECT_EQ(Read(u"4000000000", 0UL), 4000000000UL);
  EXPECT_EQ(Read(u"18446744073709551616", 1ULL), 1ULL); // out of range
}

TEST(ErrorInfoTest, MakesAndJoinsRecords) {
  ErrorInfo* plain = MakeError(String(u"Empty XML data"));
  EXPECT_EQ(plain->Text(), String(u"Empty XML data"));
  EXPECT_EQ(plain->Next(), nullptr);
  ErrorInfo* prefixed = MakeError(String(u"Can't connect: "), String(u"refused"));
  EXPECT_EQ(prefixed->Text(), String(u"Can't connect: refused"));
  ErrorInfo* numbered = MakeError(String(u"Soap error: "), 5);
  EXPECT_EQ(numbered->Text(), String(u"Soap error: 5"));

  EXPECT_EQ(SafeConcat(nullptr, nullptr), nullptr);
  ErrorInfo* chain = SafeConcat(plain, SafeConcat(nullptr, prefixed));
  chain = SafeConcat(chain, numbered);
  ASSERT_EQ(chain, plain);
  ASSERT_EQ(chain->Next(), prefixed);
  ASSERT_EQ(chain->Next()->Next(), numbered);
  EXPECT_EQ(chain->FullText(), String(u"Empty XML data; Can't connect: refused; Soap error: 5"));
  delete chain; // the whole chain goes; ASan checks nothing is left
}

TEST(ErrorInfoTest, LongChainIsDeletedWithoutRecursion) {
  ErrorInfo* chain = MakeError(String(u"0"));
  ErrorInfo* last = chain;
  for (int i = 1; i < 200000; ++i) {
    ErrorInfo* next = MakeError(String(u"n"));
    ASSERT_EQ(SafeConcat(last, next), last);
    last = next;
  }
  delete chain;
}

// A document holds millions of names and values: a String is no bigger than its units.
static_assert(sizeof(String) == sizeof(std::u16string));

} // namespace
} // namespace QOR
