#include <qorxmlu/foundation/Encoding.h>

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace QOR {
namespace {

// Decodes from a heap copy of exactly the given bytes into exactly length units, so that a
// sanitizer sees any read or write past either buffer.
std::u16string Decode(const std::string& bytes) {
  std::unique_ptr<char[]> input(new char[bytes.size()]);
  std::memcpy(input.get(), bytes.data(), bytes.size());
  std::unique_ptr<char16_t[]> output(new char16_t[bytes.size()]);
  return std::u16string(output.get(), DecodeUtf8Units(input.get(), bytes.size(), output.get()));
}

// Encodes into a buffer of exactly the size that EncodeToUTF8 asked for.
std::string Encode(const std::u16string& units, bool addMark = false) {
  String text(units);
  std::size_t size = EncodeToUTF8(text, nullptr, addMark);
  std::unique_ptr<char[]> buffer(new char[size]);
  EXPECT_EQ(EncodeToUTF8(text, buffer.get(), addMark), size);
  EXPECT_EQ(buffer[size - 1], '\0');
  return std::string(buffer.get(), size - 1);
}

TEST(EncodingTest, InvalidUtf8GivesOneReplacementPerBadSequence) {
  const char16_t* r = u"\uFFFD";
  struct Case {
    std::string bytes;
    std::u16string text;
  } cases[] = {
      {"\xC0\xAF", std::u16string(2, *r)},                       // overlong '/'
      {"\xE0\x80\xAF", std::u16string(3, *r)},                   // overlong, 3 bytes
      {"\xF0\x80\x80\xAF", std::u16string(4, *r)},               // overlong, 4 bytes
      {"\xF0\x8F\xBF\xBF", std::u16string(4, *r)},               // overlong U+FFFF
      {"\xED\xA0\x80\xED\xBF\xBF", std::u16string(6, *r)},       // encoded surrogates
      {"\xF4\x90\x80\x80", std::u16string(4, *r)},               // above U+10FFFF
      {"\xF8\x88\x80\x80\x80", std::u16string(5, *r)},           // old 5-byte form
      {"\xFC\x84\x80\x80\x80\x80", std::u16string(6, *r)},       // old 6-byte form
      {"a\x80\xBF" "b", u"a\uFFFD\uFFFDb"},                      // stray continuation bytes
      {"\xE2\x82" "a\xF0\x9F\x98" "b", u"\uFFFDa\uFFFDb"},       // cut short: one each
      {"\xF0\x9F\x98\x80\xE2\x82\xAC\xC3\xA9", u"\U0001F600\u20AC\u00E9"},
      {"\xF4\x8F\xBF\xBF\xEF\xBF\xBF\xDF\xBF", u"\U0010FFFF\uFFFF\u07FF"}, // every payload bit set
      {"\xFE\xFF", std::u16string(2, *r)},
      {"x\xF0\x9F\x98", u"x\uFFFD"},                             // truncated at the end
      {"x\xE2\x82", u"x\uFFFD"},
      {"x\xC3", u"x\uFFFD"},
  };
  // Alone, and at every offset inside longer text of ASCII, 2 and 3 byte characters, where the
  // bulk paths see them.
  const std::string before = "ab\xC3\xA9\xE2\x82\xAC" "cdefgh\xD0\x96\xE4\xBD\xA0xyz0123456789";
  const std::u16string beforeText = u"abé€cdefghЖ你xyz0123456789";
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    EXPECT_EQ(Decode(c.bytes), c.text);
    for (std::size_t cut = 0; cut <= before.size(); ++cut) {
      std::string head = before.substr(0, cut);
      std::u16string headText = Decode(head); // a cut inside a character is bad input itself
      ASSERT_EQ(Decode(head + c.bytes + before), headText + c.text + beforeText) << "at " << cut;
    }
  }
  // The length given ends the text even where a valid sequence would go on.
  EXPECT_EQ(DecodeFromUTF8("\xE2\x82\xAC", 2, false), String(u"\uFFFD"));
  EXPECT_EQ(Decode(std::string(40, 'a') + "\xE2\x82"), std::u16string(40, u'a') + u"\uFFFD");
}

TEST(EncodingTest, UnpairedSurrogatesEncodeToReplacement) {
  EXPECT_EQ(Encode(u"\xD83D\xDE00"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(Encode(std::u16string(u"a\xD800") + u"b"), "a\xEF\xBF\xBD" "b"); // high, no low
  EXPECT_EQ(Encode(std::u16string(u"a\xDC00\xD800")), "a\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(Encode(std::u16string(u"\xDE00\xD83D")), "\xEF\xBF\xBD\xEF\xBF\xBD"); // wrong order
  EXPECT_EQ(Encode(std::u16string(20, u'z') + u"\xD83D"), std::string(20, 'z') + "\xEF\xBF\xBD");
  // Inside longer text, at every offset of the 8-unit blocks.
  for (std::size_t at = 0; at < 24; ++at) {
    std::u16string text = u"aé€Жxyz你01234567890123456789";
    text.insert(at, u"\xDC00\xDBFF\xDFFF\xD800");
    std::string expected = Encode(text.substr(0, at)) + "\xEF\xBF\xBD\xF4\x8F\xBF\xBF\xEF\xBF\xBD" +
                           Encode(text.substr(at + 4));
    ASSERT_EQ(Encode(text), expected) << "at " << at;
  }
}

TEST(EncodingTest, MarksAndTerminators) {
  EXPECT_EQ(EncodeToUTF8(String(), nullptr, false), 1u);
  EXPECT_EQ(EncodeToUTF8(String(u"é"), nullptr, true), 6u);
  EXPECT_EQ(Encode(u"é", true), "\xEF\xBB\xBF\xC3\xA9");
  EXPECT_EQ(Encode(u"\u07FF\u0800"), "\xDF\xBF\xE0\xA0\x80"); // the last 2-byte and the first 3-byte form
  String embedded(std::u16string(u"a\0b", 3));
  EXPECT_EQ(Encode(embedded.Std()), std::string("a\0b", 3));
  char units[8] = {}; // no terminator, no mark
  EXPECT_EQ(std::string(units, EncodeUtf8Units(u"a\u00df\u20ac", 3, units)), "a\xC3\x9F\xE2\x82\xAC");

  EXPECT_EQ(DecodeFromUTF8(nullptr, true), String());
  EXPECT_EQ(DecodeFromUTF8("\xEF\xBB\xBFx", true), String(u"x"));
  EXPECT_EQ(DecodeFromUTF8("\xEF\xBB\xBFx", false), String(u"\uFEFFx"));
  EXPECT_EQ(DecodeFromUTF8("\xEF\xBB", true), String(u"\uFFFD"));
  EXPECT_EQ(DecodeFromUTF8("ab\0cd", 5, false), String(std::u16string(u"ab\0cd", 5)));
  EXPECT_EQ(DecodeFromUTF8("ab\0cd", false), String(u"ab"));
}

// Decodes into a buffer of exactly the computed size, with guard bytes behind it.
std::string Base64(const std::string& text) {
  std::size_t size = CalculateRequiredDecodeOutputBufferSize(text.c_str());
  EXPECT_LE(size, CalculateRequiredDecodeOutputBufferSize(text.size()));
  std::vector<unsigned char> buffer(size + 8, 0xA5);
  std::size_t written = Base64DecodeBuffer(text.c_str(), buffer.data());
  EXPECT_LE(written, size);
  for (std::size_t i = size; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0xA5) << text;
  return std::string(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(written));
}

TEST(EncodingTest, Base64DecodesWhatIsValid) {
  EXPECT_EQ(Base64("TWFu"), "Man");
  EXPECT_EQ(Base64("TWFuTWE="), "ManMa");
  EXPECT_EQ(Base64("TWFuTQ=="), "ManM");
  EXPECT_EQ(Base64("TWFuTWE"), "ManMa");        // padding missing
  EXPECT_EQ(Base64("TWFuTQ"), "ManM");
  EXPECT_EQ(Base64("TWFuT"), "Man");            // a lone final digit carries nothing
  EXPECT_EQ(Base64("T W\r\nF*u\t!"), "Man");    // junk is skipped
  EXPECT_EQ(Base64("TQ==TWFu"), "M");           // the first '=' ends the text
  EXPECT_EQ(Base64("=TWFu"), "");
  EXPECT_EQ(Base64(""), "");
  EXPECT_EQ(Base64("-_-_"), Base64("+/+/"));    // URL alphabet
  EXPECT_EQ(Base64("////"), "\xFF\xFF\xFF");
  std::vector<char> out(8);
  EXPECT_EQ(std::string(out.data(), Base64DecodeBuffer("TWFu\0TWFu", 9, out.data())), "ManMan"); // NUL is junk
}

} // namespace
} // namespace QOR
