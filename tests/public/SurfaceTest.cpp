// The public operations that the behaviour tests of this folder do not need on their way, each
// called as a host calls it, through the shared library, and its result checked: the request
// body's size, raw files, the engine's factory and the query's accessors.
#include <qorxmlu/qorxmlu.h>

#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace QOR {
namespace {

TEST(SurfaceTest, FormBodySizeIsTheSizeOfTheBodyBuilt) {
  test::TempDir dir;
  String path = dir.Write("upload.bin", std::string(1000, 'x'));
  HttpClient client("surface", "127.0.0.1:9", false, 1, 1);
  client.AddUrlPrefix("/prefix/");
  EXPECT_EQ(client.UrlPrefix(), u"/prefix/");
  std::size_t total = 7;
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  for (int fields : {2, 1, 0}) for (bool withFile : {false, true}) {
    SCOPED_TRACE(testing::Message() << fields << " fields, file " << withFile);
    if (fields > 0) client.AddFormField("name", "Grüße");
    if (fields > 1) client.AddFormField("empty", "");
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
