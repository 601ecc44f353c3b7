#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "FakeWinInet.h"
#include "StringPrinter.h"
#include "TempDir.h"
#include "http/HttpClientImp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using test::FakeCall;
using test::FakeWinInet;
using test::TakeText;
using test::TakeTexts;

class RecordingClient : public HttpClient {
public:
  RecordingClient() : HttpClient(u"agent", u"example.test", false, 1, 1) {
    connectTimeout = 500;
    requestTimeout = 2000;
  }
  void ReportProgress(int percent) override {
    std::lock_guard<std::mutex> hold(lock);
    percents.push_back(percent);
    threads.push_back(std::this_thread::get_id());
  }
  std::mutex lock;
  std::vector<int> percents;
  std::vector<std::thread::id> threads;
};

class ClientTest : public testing::Test {
protected:
  // Upload files of more than 64 bytes go out from the file, 64 bytes at a time.
  void SetUp() override { uploadBlockSize = 64; }
  void TearDown() override { uploadBlockSize = blockSize; }

  std::string Retrieve(const char16_t* url = u"/q.php") {
    String reply;
    std::string error = TakeText(client.Retrieve(url, reply));
    lastReply = reply.ToUtf8();
    return error;
  }

  const std::size_t blockSize = uploadBlockSize;
  test::TempDir folder;
  FakeWinInet fake;
  RecordingClient client;
  std::string lastReply;
};

// The errors of a failed request and of the closes after it join in the order they arose.
TEST_F(ClientTest, ConnectionIsKeptAfterSuccessAndRemadeAfterFailure) {
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(fake.Count("InternetConnectW"), 1);
  EXPECT_EQ(fake.Count("InternetCloseHandle request"), 2);

  fake.Script("InternetWriteFile", FakeCall::Fail(12031));
  fake.Script("InternetCloseHandle", FakeCall::Fail(12004));
  fake.Script("InternetCloseHandle", FakeCall::Fail(12005));
  String failed;
  EXPECT_EQ(TakeTexts(client.Retrieve(u"/q", failed)),
            (std::vector<std::string>{"Can't write requested data: CONNECTION RESET",
                                      "Error closing File handleINTERNET INTERNAL ERROR",
                                      "Error closing HTTP handleINVALID URL"}));
  EXPECT_EQ(fake.Count("InternetCloseHandle root"), 1);
  // The root has no context for the callback: the callback goes first.
  EXPECT_LT(fake.Position("InternetSetStatusCallbackW null"), fake.Position("InternetCloseHandle root"));
  EXPECT_TRUE(client.RequestCancelled()) << "a dropped connection leaves the mark set";

  fake.SetReply("again");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(lastReply, "again");
  EXPECT_EQ(fake.Count("InternetConnectW"), 2);
  EXPECT_FALSE(client.RequestCancelled());
}

TEST_F(ClientTest, FailedConnectKeepsTheForm) {
  fake.Script("InternetConnectW", FakeCall::Fail(12029));
  client.AddFormField(u"id", u"7");
  client.progressTotal = 10;
  String reply(u"untouched");
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "Can't connect to web site: CANNOT CONNECT");
  EXPECT_EQ(reply, u"untouched");
  EXPECT_EQ(client.formNames.Size(), 1u);
  EXPECT_EQ(client.progressTotal, 10u);
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 0);
}

TEST_F(ClientTest, ProgressOnlyWhenAskedForStartsAtZeroRisesStrictlyAndEndsAt100AnyTotal) {
  std::size_t total = 99;
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_TRUE(client.percents.empty());

  // A total of fewer bytes than ticks gives a pace of 0: the figure then follows the bytes, and
  // still reaches 100 well within the limit.
  for (std::size_t progressTotal : {std::size_t{5000}, std::size_t{5}}) {
    client.AddFormField(u"data", String(std::u16string(10000, u'd')));
    client.progressTotal = progressTotal;
    client.progressDuration = 100;
    client.progressInterval = 10;
    EXPECT_EQ(Retrieve(), "");
    EXPECT_EQ(client.progressTotal, 0u);
    std::size_t size = fake.Requests().back().body.size();
    std::lock_guard<std::mutex> hold(client.lock);
    ASSERT_GE(client.percents.size(), 2u);
    EXPECT_EQ(client.percents.front(), 0);
    EXPECT_EQ(client.percents.back(), 100);
    for (std::size_t i = 1; i < client.percents.size(); ++i) EXPECT_GT(client.percents[i], client.percents[i - 1]);
    for (std::thread::id thread : client.threads) EXPECT_NE(thread, std::this_thread::get_id());
    std::size_t transferred = client.GetBytesTransferred(total);
    EXPECT_EQ(transferred, total);
    EXPECT_EQ(total, size);
    client.percents.clear();
  }
}

// A file that shrinks or grows while it goes out fails the request before its closing line is
// written, and the request is closed rather than ended: the server never sees a whole body.
TEST_F(ClientTest, UploadFileThatChangesSizeFailsTheRequestUnfinished) {
  for (std::size_t size : {std::size_t{100}, std::size_t{300}}) {
    String file = folder.Write("upload.bin", std::string(200, 'f'));
    client.AddFormField(u"id", u"7");
    client.SetUploadFile(file, u"userfile");
    int ends = fake.Count("HttpEndRequestW");
    fake.Script("InternetWriteFile",
                FakeCall::Succeed().Inside([&] { std::filesystem::resize_file(folder.Path("upload.bin"), size); }));
    EXPECT_EQ(Retrieve(), "Upload file changed size while it was sent '" + file.ToUtf8() + "'");
    EXPECT_TRUE(client.RequestCancelled());
    EXPECT_EQ(fake.Count("HttpEndRequestW"), ends);
    EXPECT_EQ(fake.Requests().back().body.find("--gc0p4Jq0M2Yt08jU534c0p--"), std::string::npos);
  }
}

// A derived GetRequestBuffer around HttpClient's may log the block, but a block it changes would
// lose the file behind it: that request fails before anything goes out.
TEST_F(ClientTest, DerivedBodyThatChangesTheBlockBeforeAStreamedFileFails) {
  class Wrapping : public RecordingClient {
  public:
    ErrorInfo* GetRequestBuffer(const String& boundary, const char*& buffer, std::size_t& length) override {
      ErrorInfo* error = HttpClient::GetRequestBuffer(boundary, buffer, length);
      if (change && !error) length -= 1;
      return error;
    }
    bool change = false;
  };
  Wrapping wrapping;
  const std::string bytes(100, 'w');
  for (bool change : {false, true}) {
    wrapping.change = change;
    wrapping.SetUploadFile(folder.Write("upload.bin", bytes), u"userfile");
    String reply;
    EXPECT_EQ(TakeText(wrapping.Retrieve(u"/q", reply)),
              change ? "Request body changed around an upload file that is sent from the file" : "");
  }
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 1);
  EXPECT_NE(fake.Requests().at(0).body.find("\r\n\r\n" + bytes + "\r\n--"), std::string::npos);
}

TEST(ClientLimitsTest, TimeLimitsTooLongForMillisecondsMeanNoLimit) {
  FakeWinInet fake;
  HttpClient client(u"agent", u"example.test", false, 4294968, 4294967);
  EXPECT_EQ(client.connectTimeout, 0xFFFFFFFFu);
  EXPECT_EQ(client.requestTimeout, 4294967000u);
  // Beyond what a wait takes in milliseconds, and still no limit: a request that outlives the
  // watchdog's late start is not cancelled.
  fake.Script("HttpEndRequestW", FakeCall::Pend(50));
  String reply;
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "");
}

} // namespace
} // namespace QOR
