// The public operations that the behaviour tests of this folder do not need on their way, each
// called as a host calls it, through the shared library, and its result checked: text in every
// form a host holds it, the tag's typed values, and the request body's size.
#include <qorxmlu/qorxmlu.h>

#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace QOR {
namespace {

TEST(SurfaceTest, TextGoesInAsAHostHoldsIt) {
  const String expected(u"Grüße");
  const std::string utf8 = "Grüße";
  EXPECT_EQ(String("Grüße"), expected);
  EXPECT_EQ(String(utf8), expected);
  EXPECT_EQ(String(std::string_view(utf8)), expected);
  EXPECT_EQ(String(u8"Grüße"), expected);
  EXPECT_EQ(String(std::u8string_view(u8"Grüße")), expected);
  EXPECT_EQ(String(L"Grüße"), expected);
  EXPECT_EQ(String(u"Grüße und mehr", 5), expected);
  EXPECT_EQ(String(static_cast<const char*>(nullptr)), String());
  EXPECT_EQ(String("\xff"), String(u"\ufffd")) << "bad UTF-8 decodes to U+FFFD";
  EXPECT_EQ(String::FromAscii("plain"), u"plain");
  String text;
  text = "ä";
  EXPECT_EQ(text, u"ä");
  text = L"ö";
  text += "ü";
  text << "!" << String(u"?");
  EXPECT_EQ(text, u"öü!?");
  EXPECT_EQ(text.ToUtf8(), "öü!?");
  // Where a String goes in, a literal or a std::string does too.
  XML doc("Settings", utf8);
  EXPECT_EQ(doc.TopTag()->GetName(), u"Settings");
  EXPECT_EQ(doc.TopTag()->NestTag("Item", "1", "id", utf8)->GetAttrVal(0), expected);
}

TEST(SurfaceTest, WideIntegersAndFormattedDoublesBothWays) {
  String text;
  text << (-9223372036854775807LL - 1) << u" " << 18446744073709551615ULL << u" " << 4000000000UL;
  EXPECT_EQ(text, u"-9223372036854775808 18446744073709551615 4000000000");
  long long wide = 0;
  unsigned long long widest = 0;
  unsigned long large = 0;
  String(u"-9223372036854775808") >> wide;
  String(u"18446744073709551615") >> widest;
  String(u"4000000000") >> large;
  EXPECT_EQ(wide, -9223372036854775807LL - 1);
  EXPECT_EQ(widest, 18446744073709551615ULL);
  EXPECT_EQ(large, 4000000000UL);
  String(u"18446744073709551616") >> widest;
  EXPECT_EQ(widest, 18446744073709551615ULL) << "out of range leaves the target";
  String formatted;
  formatted.AppendDouble(2.5, DoubleFormat() += dec(3));
  EXPECT_EQ(formatted, u"2.500");
}

TEST(SurfaceTest, TagValuesOfEveryType) {
  XML doc("T");
  XMLTag& tag = *doc.TopTag();
  struct {
    void (*set)(XMLTag&);
    const char16_t* value;
  } rows[] = {{[](XMLTag& t) { t << "Grüße"; }, u"Grüße"},
              {[](XMLTag& t) { t << String(u"s"); }, u"s"},
              {[](XMLTag& t) { t << L"w"; }, u"w"},
              {[](XMLTag& t) { t << u"u"; }, u"u"},
              {[](XMLTag& t) { t << -7L; }, u"-7"},
              {[](XMLTag& t) { t << 4000000000u; }, u"4000000000"},
              {[](XMLTag& t) { t << 0.25; }, u"0.25"},
              {[](XMLTag& t) { t << true; }, u"yes"}};
  for (const auto& row : rows) {
    row.set(tag);
    EXPECT_EQ(tag.GetValue(), row.value);
  }
  tag.SetValue(" 12 ");
  long number = 0;
  unsigned int count = 0;
  double real = 0;
  String text;
  tag >> number;
  tag >> count;
  tag >> real;
  tag >> text;
  EXPECT_EQ(number, 12);
  EXPECT_EQ(count, 12u);
  EXPECT_EQ(real, 12.0);
  EXPECT_EQ(text, u" 12 ");
  tag.SetName("Renamed");
  EXPECT_EQ(tag.GetName(), u"Renamed");
}

TEST(SurfaceTest, FormBodySizeIsTheSizeOfTheBodyBuilt) {
  test::TempDir dir;
  String path = dir.Write("upload.bin", std::string(1000, 'x'));
  HttpClient client("surface", "127.0.0.1:9", false, 1, 1);
  client.AddUrlPrefix("/prefix/");
  EXPECT_EQ(client.UrlPrefix(), u"/prefix/");
  std::size_t total = 7;
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  for (bool withFile : {false, true}) {
    SCOPED_TRACE(withFile);
    client.AddFormField("name", "Grüße");
    client.AddFormField("empty", "");
    if (withFile) client.SetUploadFile(path, "userfile");
    std::uint64_t size = client.FormBodySize();
    const char* body = nullptr;
    std::size_t length = 0;
    ErrorPtr error{client.GetRequestBuffer("gc0p4Jq0M2Yt08jU534c0p", body, length)};
    EXPECT_FALSE(error);
    EXPECT_EQ(size, length);
    EXPECT_EQ(length > 1000, withFile);
    delete[] body;
  }
  client.SetUploadFile(dir.Path("missing.bin").u16string(), "userfile");
  EXPECT_EQ(client.FormBodySize(), 0u);
}

TEST(SurfaceTest, RawFilesAndUnitsAsAHostUsesThem) {
  test::TempDir dir;
  WriteableFile out(dir.Path("raw.bin").u16string());
  ASSERT_FALSE(ErrorPtr(out.Open(false)));
  ASSERT_FALSE(ErrorPtr(out.Write("abc", 3)));
  ASSERT_FALSE(ErrorPtr(out.Write("de", 2)));
  EXPECT_EQ(out.Position(), 5u);
  ASSERT_FALSE(ErrorPtr(out.Flush(true)));
  ASSERT_FALSE(ErrorPtr(out.Close()));
  ReadableFile in(dir.Path("raw.bin").u16string());
  ASSERT_FALSE(ErrorPtr(in.Open()));
  char bytes[8] = {};
  std::size_t got = 0;
  ASSERT_FALSE(ErrorPtr(in.ReadFile(bytes, sizeof bytes, &got)));
  EXPECT_EQ(std::string(bytes, got), "abcde");

  char utf8[16] = {};
  EXPECT_EQ(EncodeUtf8Units(u"aß€", 3, utf8), 6u);
  EXPECT_EQ(std::string(utf8, 6), "aß€");
  char* eight = ConvertToMultibyte(L"wide", 0, nullptr);
  ASSERT_NE(eight, nullptr);
  EXPECT_STREQ(eight, "wide");
  delete[] eight;

  // The engine a derived client would hold: made and destroyed without touching the network.
  HttpClient owner("surface", "127.0.0.1:9", false, 1, 1);
  HttpClientImpInterface* engine = CreateHttpClientImp(&owner);
  ASSERT_NE(engine, nullptr);
  EXPECT_FALSE(engine->RequestCancelled());
  delete engine;
}

TEST(SurfaceTest, RequestWithoutInitialiseHttpFailsClearly) {
  // Before InitialiseHttp and after TerminateHttp alike: an error, never a crash.
  for (int round = 0; round < 2; ++round) {
    HttpClient client("surface", "127.0.0.1:9", false, 1, 1);
    String reply(u"untouched");
    ErrorPtr error{client.Retrieve("x", reply)};
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Text(), u"HTTP is not initialised: call HttpClient::InitialiseHttp first");
    EXPECT_EQ(reply, u"untouched");
    ErrorPtr loaded{HttpClient::InitialiseHttp()};
    ASSERT_FALSE(loaded);
    EXPECT_FALSE(ErrorPtr(HttpClient::TerminateHttp()));
  }
}

TEST(SurfaceTest, QueryKeepsWhatItWasGiven) {
  SimpleSoap query("service/echo", 3, "sub");
  query.AddParameter("a", "1");
  query.AddParameter("a", "2");
  query.AddFileUploadParam("file.bin");
  EXPECT_EQ(query.GetUrl(), u"service/echo");
  EXPECT_EQ(query.QueryID(), 3u);
  EXPECT_EQ(query.QuerySubID(), u"sub");
  EXPECT_EQ(query.FileUploadParam(), u"file.bin");
  ASSERT_EQ(query.GetNames().Size(), 2u);
  EXPECT_EQ(query.GetNames()[1], u"a");
  EXPECT_EQ(query.GetValues()[1], u"2");
  // A query with no blocked caller hands its outcome here, which owns and destroys it.
  SoapQueue queue;
  SafeItem<SimpleSoap> item(new SimpleSoap("x", 1, ""));
  queue.SoapCallback(item, MakeError("dropped"));
  EXPECT_FALSE(queue.Running());
}

} // namespace
} // namespace QOR
