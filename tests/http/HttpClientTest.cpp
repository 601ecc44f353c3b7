#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "FakeWinInet.h"
#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <chrono>
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
using Api = FakeWinInet::Api;

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
  std::string Retrieve(const char16_t* url = u"/q.php") {
    String reply;
    std::string error = TakeText(client.Retrieve(url, reply));
    lastReply = reply.ToUtf8();
    return error;
  }

  FakeWinInet fake;
  RecordingClient client;
  std::string lastReply;
};

TEST_F(ClientTest, RetrievePostsTheFormBehindTheUrlPrefix) {
  fake.SetReply("answer");
  client.AddUrlPrefix(u"/first");
  client.AddUrlPrefix(u"/api");
  client.AddFormField(u"id", u"7");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(lastReply, "answer");
  EXPECT_EQ(client.requestUrl, u"/api/q.php");
  EXPECT_EQ(client.formNames.Size(), 0u);
  client.AddUrlPrefix(u"");
  EXPECT_EQ(Retrieve(), "");
  auto requests = fake.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].objectName, "/api/q.php");
  EXPECT_EQ(requests[1].objectName, "/q.php");
  EXPECT_NE(requests[0].body.find("name=\"id\"\r\nContent-Type: text/plain; charset=utf-8"), std::string::npos);
  EXPECT_EQ(requests[1].body, "\r\n--gc0p4Jq0M2Yt08jU534c0p--");
}

TEST_F(ClientTest, ConnectionIsKeptAfterSuccessAndRemadeAfterFailure) {
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(fake.Count("InternetConnectW"), 1);
  EXPECT_EQ(fake.Count("InternetCloseHandle request"), 2);

  fake.Script(Api::InternetWriteFile, FakeCall::Fail(12031));
  EXPECT_EQ(Retrieve(), "Can't write requested data: CONNECTION RESET");
  EXPECT_EQ(fake.Count("InternetCloseHandle root"), 1);
  EXPECT_TRUE(client.RequestCancelled()) << "a dropped connection leaves the mark set";

  fake.SetReply("again");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(lastReply, "again");
  EXPECT_EQ(fake.Count("InternetConnectW"), 2);
  EXPECT_FALSE(client.RequestCancelled());
}

TEST_F(ClientTest, FailedConnectKeepsTheForm) {
  fake.Script(Api::InternetConnectW, FakeCall::Fail(12029));
  client.AddFormField(u"id", u"7");
  client.progressTotal = 10;
  String reply(u"untouched");
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "Can't connect to web site: CANNOT CONNECT");
  EXPECT_EQ(reply, u"untouched");
  EXPECT_EQ(client.formNames.Size(), 1u);
  EXPECT_EQ(client.progressTotal, 10u);
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 0);
}

TEST_F(ClientTest, ErrorsJoinInTheOrderTheyArose) {
  fake.Script(Api::InternetWriteFile, FakeCall::Fail(12031));
  fake.Script(Api::InternetCloseHandle, FakeCall::Fail(12004));
  fake.Script(Api::InternetCloseHandle, FakeCall::Fail(12005));
  String reply;
  EXPECT_EQ(TakeTexts(client.Retrieve(u"/q", reply)),
            (std::vector<std::string>{"Can't write requested data: CONNECTION RESET",
                                      "Error closing File handleINTERNET INTERNAL ERROR",
                                      "Error closing HTTP handleINVALID URL"}));
}

// A derived client may build its own body; the engine holds it to WinInet's 32-bit length too.
TEST(ClientLimitTest, BodyOf4GiBFromADerivedClientIsNeverSent) {
  class HugeBodyClient : public RecordingClient {
  public:
    ErrorInfo* GetRequestBuffer(const String&, const char*& buffer, std::size_t& length) override {
      buffer = new char[1];
      length = std::size_t{1} << 32;
      return nullptr;
    }
  };
  FakeWinInet fake;
  HugeBodyClient client;
  String reply(u"untouched");
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "Request body too large: 4 GiB or more");
  EXPECT_EQ(reply, u"untouched");
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 0);
  EXPECT_EQ(fake.Count("HttpSendRequestExW"), 0);
}

TEST_F(ClientTest, RetrieveBase64) {
  fake.SetReply("aGVsbG8=");
  char* buffer = reinterpret_cast<char*>(1);
  std::size_t length = 99;
  // A block size of 0 reads the reply as text and drops it.
  EXPECT_EQ(TakeText(client.RetrieveBase64(0, u"/b", buffer, length)), "");
  EXPECT_EQ(buffer, reinterpret_cast<char*>(1));
  EXPECT_EQ(length, 99u);
  EXPECT_EQ(TakeText(client.RetrieveBase64(3, u"/b", buffer, length)), "");
  ASSERT_NE(buffer, reinterpret_cast<char*>(1));
  EXPECT_EQ(std::string(buffer, length), "hello");
  delete[] buffer;
}

TEST_F(ClientTest, CancelFromAnotherThreadInEachStage) {
  struct {
    Api api;
    std::string entryPoint;
    std::string words;
  } stages[] = {{Api::HttpSendRequestExW, "HttpSendRequestExW", "Error sending request: OPERATION CANCELLED"},
                {Api::InternetWriteFile, "InternetWriteFile", "Error writing requested data: OPERATION CANCELLED"},
                {Api::HttpEndRequestW, "HttpEndRequestW", "Error ending http request: OPERATION CANCELLED"},
                {Api::InternetReadFileExA, "InternetReadFileExA", "Error reading requested data: OPERATION CANCELLED"}};
  for (const auto& stage : stages) {
    SCOPED_TRACE(stage.entryPoint);
    int before = fake.Count(stage.entryPoint);
    fake.Script(stage.api, FakeCall::Hang());
    std::thread canceller([&] {
      for (int i = 0; i < 2000 && fake.Count(stage.entryPoint) == before; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      delete client.CancelRequest();
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Retrieve(), stage.words);
    canceller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(client.requestTimeout));
  }
}

TEST_F(ClientTest, ProgressOnlyWhenAskedForStartsAtZeroRisesStrictlyAndEndsAt100) {
  std::size_t total = 99;
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_TRUE(client.percents.empty());

  client.AddFormField(u"data", String(std::u16string(10000, u'd')));
  client.progressTotal = 5000;
  client.progressDuration = 100;
  client.progressInterval = 10;
  int writesBefore = fake.Count("InternetWriteFile");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(client.progressTotal, 0u);
  // Ten chunks, one per step, and the rest of the integer division behind them.
  std::size_t size = fake.Requests().at(1).body.size();
  EXPECT_EQ(fake.Count("InternetWriteFile") - writesBefore, static_cast<int>((size + size / 10 - 1) / (size / 10)));
  std::lock_guard<std::mutex> hold(client.lock);
  ASSERT_GE(client.percents.size(), 2u);
  EXPECT_EQ(client.percents.front(), 0);
  EXPECT_EQ(client.percents.back(), 100);
  for (std::size_t i = 1; i < client.percents.size(); ++i) EXPECT_GT(client.percents[i], client.percents[i - 1]);
  for (std::thread::id thread : client.threads) EXPECT_NE(thread, std::this_thread::get_id());
  std::size_t transferred = client.GetBytesTransferred(total);
  EXPECT_EQ(transferred, total);
  EXPECT_EQ(total, size);
}

TEST_F(ClientTest, FailedPostWithProgressStopsTheProgressThread) {
  client.progressTotal = 1000;
  client.progressDuration = 10000;
  client.progressInterval = 10;
  fake.Script(Api::HttpSendRequestExW, FakeCall::Fail(12029));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Retrieve(), "Can't send request: CANNOT CONNECT");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(client.progressTotal, 0u);
}

TEST_F(ClientTest, ProgressWithTooSmallATotalFollowsTheBytes) {
  // Fewer bytes than ticks would give a pace of 0: the figure follows the bytes and reaches 100
  // well within the limit.
  client.progressTotal = 5;
  client.progressDuration = 100;
  client.progressInterval = 10;
  client.requestTimeout = 5000;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Retrieve(), "");
  EXPECT_FALSE(client.RequestCancelled());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  std::lock_guard<std::mutex> hold(client.lock);
  ASSERT_FALSE(client.percents.empty());
  EXPECT_EQ(client.percents.back(), 100);
}

TEST(ClientLimitsTest, TimeLimitsTooLongForMillisecondsMeanNoLimit) {
  FakeWinInet fake;
  HttpClient client(u"agent", u"example.test", false, 4294968, 4294967);
  EXPECT_EQ(client.connectTimeout, 0xFFFFFFFFu);
  EXPECT_EQ(client.requestTimeout, 4294967000u);
  // Beyond what a wait takes in milliseconds, and still no limit: a request that outlives the
  // watchdog's late start is not cancelled.
  fake.Script(Api::HttpEndRequestW, FakeCall::Pend(50));
  String reply;
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "");
}

} // namespace
} // namespace QOR
