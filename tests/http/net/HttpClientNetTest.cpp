// HttpClient against loopback servers: natively through libqorinet, under Wine through
// wininet.dll.
#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "NetServers.h"
#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using namespace std::chrono_literals;
using test::TakeText;

// Wine's wininet.dll does not end a pending call when its handle is closed; it waits for the
// network. A stalled request cannot be cut short there.
constexpr const char* wineKeepsStalledCalls =
    "Wine's wininet.dll does not cancel a pending call when its handle is closed";

std::string PatternBytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xFF);
  return bytes;
}

std::string DigitBytes(std::size_t count) {
  std::string bytes;
  while (bytes.size() < count) bytes += "0123456789";
  bytes.resize(count);
  return bytes;
}

class ProgressClient : public HttpClient {
public:
  using HttpClient::HttpClient;
  void ReportProgress(int percent) override {
    std::lock_guard<std::mutex> hold(lock);
    percents.push_back(percent);
  }
  // Records the thread of every cancel, the watchdog's included.
  ErrorInfo* CancelRequest() override {
    {
      std::lock_guard<std::mutex> hold(lock);
      cancellers.push_back(std::this_thread::get_id());
    }
    return HttpClient::CancelRequest();
  }
  std::mutex lock;
  std::vector<int> percents;
  std::vector<std::thread::id> cancellers;
};

class HttpClientNetTest : public testing::Test {
protected:
  static void SetUpTestSuite() {
    servers = &test::TheNetServers();
    test::TrustTestCa(*servers);
    loadError = TakeText(HttpClient::InitialiseHttp());
  }
  static void TearDownTestSuite() { delete HttpClient::TerminateHttp(); }
  void SetUp() override { ASSERT_EQ(loadError, ""); }

  static std::unique_ptr<ProgressClient> Client(const std::string& role, bool secure = false) {
    auto client = std::make_unique<ProgressClient>(u"qorxmlu tests", String::FromUtf8((*servers)[role]), secure, 5, 5);
    return client;
  }
  // Retrieve on the client; the error text, and the reply in reply.
  static std::string Retrieve(HttpClient& client, const char16_t* url, std::string& reply) {
    String text;
    std::string error = TakeText(client.Retrieve(url, text));
    reply = text.ToUtf8();
    return error;
  }

  static inline const test::NetServers* servers = nullptr;
  static inline std::string loadError;
};

TEST_F(HttpClientNetTest, TextRepliesAroundTheBlockSize) {
  auto client = Client("plain");
  for (std::size_t size : {0u, 102399u, 102400u, 350000u}) {
    std::string reply;
    std::u16string url = u"/text/" + String::FromUtf8(std::to_string(size)).Std();
    EXPECT_EQ(Retrieve(*client, url.c_str(), reply), "") << size;
    EXPECT_EQ(reply.size(), size);
    EXPECT_TRUE(reply == DigitBytes(size)) << size;
  }
}

TEST_F(HttpClientNetTest, LongReplyInSmallBlocksTakesNoCopyPerBlock) {
  // 20 000 blocks: a copy of the whole reply at each step would move some 200 GB.
  auto client = Client("plain");
  client->transferBlockSize = 1024;
  client->requestTimeout = 60000;
  auto start = std::chrono::steady_clock::now();
  std::string reply;
  EXPECT_EQ(Retrieve(*client, u"/text/20480000", reply), "");
  EXPECT_EQ(reply.size(), 20480000u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

TEST_F(HttpClientNetTest, Base64RepliesAroundTheBlockSize) {
  auto client = Client("plain");
  // 3072 bytes are 4096 characters of Base64: one block, one block and a byte, many blocks.
  struct {
    std::size_t bytes;
    DWORD blockSize;
  } cases[] = {{0, 4096}, {3072, 4096}, {3072, 4097}, {3072, 100}, {100000, 4096}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.blockSize);
    char* buffer = nullptr;
    std::size_t length = 0;
    std::u16string url = u"/base64/" + String::FromUtf8(std::to_string(entry.bytes)).Std();
    ASSERT_EQ(TakeText(client->RetrieveBase64(entry.blockSize, url.c_str(), buffer, length)), "");
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(std::string(buffer, length) == PatternBytes(entry.bytes)) << entry.bytes;
    delete[] buffer;
  }
}

TEST_F(HttpClientNetTest, ErrorPagesAndUtf8AreReplies) {
  auto client = Client("plain");
  std::string reply;
  EXPECT_EQ(Retrieve(*client, u"/status/404", reply), "");
  EXPECT_EQ(reply, "no such page here\n");
  String text;
  EXPECT_EQ(TakeText(client->Retrieve(u"/utf8", text)), "");
  EXPECT_EQ(text, u"Gr\u00fc\u00dfe \u20ac \u65e5\u672c");
}

TEST_F(HttpClientNetTest, ServerReceivesTheHeadersAndTheBody) {
  test::TempDir folder;
  // The reply comes back as text, so the file holds no NUL here.
  String path = folder.Write("upload.bin", "file bytes\r\n--");
  auto client = Client("plain");
  auto twin = Client("plain");
  for (HttpClient* form : {static_cast<HttpClient*>(client.get()), static_cast<HttpClient*>(twin.get())}) {
    form->AddFormField(u"id", u"7");
    form->AddFormField(u"text", u"gr\u00fc\u00dfe");
    form->SetUploadFile(path, u"userfile");
  }
  const char* body = nullptr;
  std::size_t length = 0;
  ASSERT_EQ(TakeText(twin->GetRequestBuffer(u"gc0p4Jq0M2Yt08jU534c0p", body, length)), "");
  std::string expected(body, length);
  delete[] body;

  std::string reply;
  ASSERT_EQ(Retrieve(*client, u"/mirror", reply), "");
  std::size_t split = reply.find("\n\n");
  ASSERT_NE(split, std::string::npos);
  std::string head = reply.substr(0, split + 1);
  EXPECT_EQ(reply.substr(split + 2), expected);
  EXPECT_EQ(head.rfind("POST /mirror\n", 0), 0u) << head;
  // The server moves a multipart type aside, so that it keeps the body whole for us.
  const std::string type = "Content-Type: multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p\n";
  EXPECT_NE(head.find("\nX-Posted-" + type), std::string::npos) << head;
  EXPECT_EQ(head.find("X-Posted-Content-Type:"), head.rfind("X-Posted-Content-Type:")) << "the header goes out once";
  EXPECT_NE(head.find("Content-Length: " + std::to_string(expected.size()) + "\n"), std::string::npos) << head;
  EXPECT_NE(head.find("User-Agent: qorxmlu tests\n"), std::string::npos) << head;
  EXPECT_NE(head.find("Referer: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.2; WOW64; SV1;"), std::string::npos)
      << head;
  EXPECT_NE(head.find("Accept: image/gif"), std::string::npos) << head;
}

TEST_F(HttpClientNetTest, ConnectionIsReusedAndRemadeAfterFailure) {
  auto client = Client("plain");
  std::string first, second;
  ASSERT_EQ(Retrieve(*client, u"/port", first), "");
  ASSERT_EQ(Retrieve(*client, u"/port", second), "");
  EXPECT_EQ(first, second) << "the second request came on the same TCP connection";

  client->SetUploadFile(u"no/such/file.bin", u"userfile");
  std::string reply;
  EXPECT_NE(Retrieve(*client, u"/port", reply), "");
  EXPECT_TRUE(client->RequestCancelled());
  std::string third;
  ASSERT_EQ(Retrieve(*client, u"/port", third), "");
  EXPECT_FALSE(client->RequestCancelled());
  // Wine keeps its TCP connections in a pool of the process, beyond the handles.
  if (!test::RunningUnderWine()) EXPECT_NE(third, second) << "a new session makes a new connection";
}

TEST_F(HttpClientNetTest, WatchdogEndsASlowRequestThroughTheClientsCancel) {
  // Each piece comes well within the limit, but the whole takes longer: the reply's 10-byte reads
  // of trickle, or the headers of slowhead, which make one wait that starts with the request.
  struct {
    const char* role;
    DWORD limit;
    const char* words;
  } rows[] = {{"trickle", 350, "Error reading requested data: OPERATION CANCELLED"},
              {"slowhead", 60, "Error ending http request: OPERATION CANCELLED"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.role);
    auto client = Client(row.role);
    client->requestTimeout = row.limit;
    client->transferBlockSize = 10;
    auto start = std::chrono::steady_clock::now();
    std::string reply;
    std::string error = Retrieve(*client, u"/doc", reply);
    EXPECT_TRUE(client->RequestCancelled());
    {
      // The derived client's own CancelRequest, from the watchdog's thread.
      std::lock_guard<std::mutex> hold(client->lock);
      ASSERT_FALSE(client->cancellers.empty());
      EXPECT_NE(client->cancellers.front(), std::this_thread::get_id());
    }
    if (test::RunningUnderWine()) {
      // The call in progress still completes there; the next one finds the handle closed.
      EXPECT_NE(error, "");
    } else {
      EXPECT_EQ(error, row.words);
      EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    }
  }
}

TEST_F(HttpClientNetTest, CancelFromAnotherThreadInEveryStage) {
  if (test::RunningUnderWine()) GTEST_SKIP() << wineKeepsStalledCalls;
  struct {
    const char* role;
    std::size_t bodyBytes;
    const char* words;
  } stages[] = {{"blackhole", 0, "Error sending request: OPERATION CANCELLED"},
                {"sink", 16 << 20, "Error writing requested data: OPERATION CANCELLED"},
                {"stalled", 0, "Error ending http request: OPERATION CANCELLED"},
                {"stallbody", 0, "Error reading requested data: OPERATION CANCELLED"}};
  for (const auto& stage : stages) {
    SCOPED_TRACE(stage.role);
    auto client = Client(stage.role);
    client->requestTimeout = 20000;
    if (stage.bodyBytes) {
      // Progress reports show when the body has started to go out.
      client->AddFormField(u"big", String(std::u16string(stage.bodyBytes, u'b')));
      client->progressTotal = stage.bodyBytes;
      client->progressDuration = 1000;
      client->progressInterval = 10;
    }
    std::thread canceller([&] {
      std::size_t total = 0;
      for (int i = 0; i < 5000 && stage.bodyBytes && client->GetBytesTransferred(total) == 0; ++i)
        std::this_thread::sleep_for(1ms);
      std::this_thread::sleep_for(300ms);
      delete client->CancelRequest();
    });
    auto start = std::chrono::steady_clock::now();
    std::string reply;
    EXPECT_EQ(Retrieve(*client, u"/x", reply), stage.words);
    canceller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  }
}

TEST_F(HttpClientNetTest, ProgressOfAnUpload) {
  auto client = Client("plain");
  client->AddFormField(u"data", String(std::u16string(2 << 20, u'p')));
  client->progressTotal = 2 << 20;
  client->progressDuration = 200;
  client->progressInterval = 20;
  std::string reply;
  ASSERT_EQ(Retrieve(*client, u"/discard", reply), "");
  std::size_t total = 0;
  std::size_t transferred = client->GetBytesTransferred(total);
  EXPECT_EQ(transferred, total);
  EXPECT_EQ(reply, std::to_string(total));
  std::lock_guard<std::mutex> hold(client->lock);
  ASSERT_GE(client->percents.size(), 2u);
  EXPECT_EQ(client->percents.front(), 0);
  EXPECT_EQ(client->percents.back(), 100);
  for (std::size_t i = 1; i < client->percents.size(); ++i) EXPECT_GT(client->percents[i], client->percents[i - 1]);
}

// The real module: loaded, unloaded twice, loaded again.
TEST(WinInetModuleTest, InitialiseTerminateAndInitialiseAgain) {
  ASSERT_EQ(TakeText(HttpClient::InitialiseHttp()), "");
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr);
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr);
  ASSERT_EQ(TakeText(HttpClient::InitialiseHttp()), "");
  {
    HttpClient client(u"qorxmlu tests", String::FromUtf8(test::TheNetServers()["plain"]), false, 5, 5);
    String reply;
    EXPECT_EQ(TakeText(client.Retrieve(u"/bytes/5", reply)), "");
    EXPECT_EQ(reply, u"01234");
  }
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr);
}

} // namespace
} // namespace QOR
