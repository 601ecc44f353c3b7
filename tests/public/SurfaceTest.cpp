// The public operations of the client that the behaviour tests of this folder do not need on
// their way, each called as a host calls it, through the shared library, and its result checked:
// the request body's size, the engine's factory, and a request before HTTP is initialised.
#include <qorxmlu/qorxmlu.h>

#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace QOR {
namespace {

TEST(SurfaceTest, FormBodySizeIsTheSizeOfTheBodyBuiltAndTheEngineIsMadeApart) {
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

  // The engine a derived client would hold: made and destroyed without touching the network.
  HttpClientImpInterface* engine = CreateHttpClientImp(&client);
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

} // namespace
} // namespace QOR
