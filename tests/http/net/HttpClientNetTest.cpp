// HttpClient against the loopback servers of TestServers.h: natively through libqorinet, under
// Wine through wininet.dll.
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/query/SoapQueue.h>

#include "ErrorText.h"
#include "StringPrinter.h"
#include "TempDir.h"
#include "TestServers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

class ProgressClient : public HttpClient {
public:
  using HttpClient::HttpClient;
  void ReportProgress(int percent) override {
    std::lock_guard<std::mutex> hold(lock);
    last = percent;
  }
  int Last() {
    std::lock_guard<std::mutex> hold(lock);
    return last;
  }
  // Records the thread of every cancel, the watchdog's included.
  ErrorInfo* CancelRequest() override {
    {
      std::lock_guard<std::mutex> hold(lock);
      cancellers.push_back(std::this_thread::get_id());
    }
    return HttpClient::CancelRequest();
  }
  std::vector<std::thread::id> Cancellers() {
    std::lock_guard<std::mutex> hold(lock);
    return cancellers;
  }

private:
  std::mutex lock;
  int last = -1;
  std::vector<std::thread::id> cancellers;
};

class HttpClientNetTest : public testing::Test {
protected:
  static void SetUpTestSuite() {
    test::TrustTestCa(test::TheServers());
    loadError = TakeText(HttpClient::InitialiseHttp());
  }
  static void TearDownTestSuite() { delete HttpClient::TerminateHttp(); }
  void SetUp() override { ASSERT_EQ(loadError, ""); }

  static std::unique_ptr<ProgressClient> Client(const std::string& role, bool secure = false) {
    return std::make_unique<ProgressClient>(u"qorxmlu tests", String::FromUtf8(test::TheServers()[role]), secure, 5,
                                            5);
  }
  // Retrieve on the client; the error text, and the reply in reply.
  static std::string Retrieve(HttpClient& client, const std::u16string& url, std::string& reply) {
    String text;
    std::string error = TakeText(client.Retrieve(url.c_str(), text));
    reply = text.ToUtf8();
    return error;
  }
  static std::u16string Url(const char* path, std::size_t size) {
    return String::FromUtf8(path + std::to_string(size)).Std();
  }

  static inline std::string loadError;
};

TEST_F(HttpClientNetTest, RepliesAroundTheBlockSizeErrorPagesAndUtf8) {
  auto client = Client("plain");
  std::string reply;
  for (std::size_t size : {0u, 102399u, 102400u, 350000u}) {
    std::string digits;
    while (digits.size() < size) digits += "0123456789";
    digits.resize(size);
    EXPECT_EQ(Retrieve(*client, Url("/text/", size), reply), "") << size;
    EXPECT_TRUE(reply == digits) << size << ": " << reply.size() << " bytes";
  }
  // An error page is a reply too; UTF-8 comes back as its text.
  EXPECT_EQ(Retrieve(*client, u"/status/404", reply), "");
  EXPECT_EQ(reply, "no such page here\n");
  EXPECT_EQ(Retrieve(*client, u"/utf8", reply), "");
  EXPECT_EQ(String::FromUtf8(reply), u"Gr\u00fc\u00dfe \u20ac \u65e5\u672c");
  // 3072 bytes are 4096 characters of Base64: one block, one block and a byte, many blocks.
  for (auto [bytes, blockSize] : {std::pair<std::size_t, DWORD>{0, 4096}, {3072, 4096}, {3072, 4097}, {3072, 100},
                                  {100000, 4096}}) {
    SCOPED_TRACE(blockSize);
    char* buffer = nullptr;
    std::size_t length = 0;
    ASSERT_EQ(TakeText(client->RetrieveBase64(blockSize, Url("/base64/", bytes).c_str(), buffer, length)), "");
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(std::string(buffer, length) == test::PatternBytes(bytes)) << bytes;
    delete[] buffer;
  }
  // A block size of 0 reads the reply as text and drops it.
  char* untouched = nullptr;
  std::size_t length = 99;
  EXPECT_EQ(TakeText(client->RetrieveBase64(0, Url("/base64/", 3072).c_str(), untouched, length)), "");
  EXPECT_TRUE(untouched == nullptr && length == 99);
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

TEST_F(HttpClientNetTest, ServerReceivesTheHeadersAndTheBody) {
  test::TempDir folder;
  // The reply comes back as text, so the file holds no NUL here. It is large enough to go out
  // from the file, in blocks.
  std::string bytes;
  while (bytes.size() < (5u << 19)) bytes += "file bytes\r\n--";
  String path = folder.Write("upload.bin", bytes);
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

  // The last prefix counts, and goes in front of the path.
  client->AddUrlPrefix(u"/first");
  client->AddUrlPrefix(u"/mir");
  std::string reply;
  ASSERT_EQ(Retrieve(*client, u"ror", reply), "");
  std::size_t split = reply.find("\n\n");
  ASSERT_NE(split, std::string::npos);
  std::string head = reply.substr(0, split + 1);
  EXPECT_TRUE(reply.substr(split + 2) == expected) << reply.size() - split - 2 << " of " << expected.size() << " bytes";
  EXPECT_EQ(head.rfind("POST /mirror\n", 0), 0u) << head;
  // The server moves a multipart type aside, so that it keeps the body whole for us.
  const std::string type = "Content-Type: multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p\n";
  EXPECT_EQ(head.find("X-Posted-Content-Type:"), head.rfind("X-Posted-Content-Type:")) << "the header goes out once";
  // Cache-Control and Connection are what the request's flags RELOAD and KEEP_CONNECTION make.
  for (const std::string& line : {"\nX-Posted-" + type, "\nContent-Length: " + std::to_string(expected.size()) + "\n",
                                  std::string("\nUser-Agent: qorxmlu tests\n"), std::string("\nAccept: image/gif, "),
                                  std::string(", */*\n"), std::string("\nCache-Control: no-cache\n"),
                                  std::string("\nConnection: Keep-Alive\n"),
                                  std::string("\nReferer: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.2; WOW64; SV1;")})
    EXPECT_NE(head.find(line), std::string::npos) << line << " in " << head;
}

TEST_F(HttpClientNetTest, WatchdogEndsASlowRequestThroughTheClientsCancel) {
  // Each piece comes well within the limit, but the whole takes longer: the reply's 10-byte reads
  // of trickle, or the headers of slowhead, which make one wait that starts with the request.
  struct {
    const char* role;
    DWORD limit;
    const char* words;
  } rows[] = {{"trickle", 150, "Error reading requested data: OPERATION CANCELLED"},
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
    // The derived client's own CancelRequest, from the watchdog's thread.
    std::vector<std::thread::id> cancellers = client->Cancellers();
    ASSERT_FALSE(cancellers.empty());
    EXPECT_NE(cancellers.front(), std::this_thread::get_id());
    if (test::RunningOnWine()) {
      // The call in progress still completes there; the next one finds the handle closed.
      EXPECT_NE(error, "");
    } else {
      // A cancel between two reads closes the handle before the next read starts, which then fails
      // at once.
      if (error != "Can't read requested data: The handle is invalid.") EXPECT_EQ(error, row.words);
      EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    }
  }
}

// The real module: unloaded twice, loaded again, and serving.
TEST_F(HttpClientNetTest, TerminateTwiceThenInitialiseAgain) {
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr);
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr);
  ASSERT_EQ(TakeText(HttpClient::InitialiseHttp()), "");
  std::string reply;
  EXPECT_EQ(Retrieve(*Client("plain"), u"/bytes/5", reply), "");
  EXPECT_EQ(reply, "01234");
}

// Server faults against every way a host reaches the network: each cell is the exact first error
// text the host gets (or success), natively and under Wine.

// The first text of the chain, "" for success.
std::string FirstText(ErrorInfo* error) {
  std::vector<std::string> texts = test::TakeTexts(error);
  return texts.empty() ? "" : texts.front();
}

enum Path { RetrievePath, Base64Path, ProgressPath, QueuePath, pathCount };
constexpr const char* pathNames[] = {"Retrieve", "RetrieveBase64", "POST with progress", "query through the queue"};

// The texts a cell accepts: one, or two where the watchdog and the wait of a step share the limit
// and either may end the request first.
using Texts = std::vector<std::string>;
using Cells = std::array<Texts, pathCount>;

Cells All(Texts texts) { return {texts, texts, texts, texts}; }

const Texts success{""};

struct Row {
  const char* fault;
  const char* role;
  bool secure;
  DWORD requestTimeout; // milliseconds
  Cells native;
  const char* wineDiffers = nullptr; // why Wine's cells are not the native ones
  Cells wine{};
};

constexpr DWORD normal = 5000;
constexpr DWORD impatient = 300;

const Row matrix[] = {
    {"healthy server", "plain", false, normal, All(success)},
    {"healthy TLS server", "secure", true, normal, All(success)},
    {"connection refused", "refused", false, normal, All({"Error sending request: CANNOT CONNECT"})},
    {"unresolved name", "unresolved", false, normal,
     All({"Error sending request: Problem accessing the Internet. UNRESOLVED URL"})},
    {"accepts and never answers", "stall2s", false, impatient,
     All({"Error ending http request: OPERATION CANCELLED", "Timed out ending http request"}),
     "a close does not end a pending call there: the step's own wait runs out",
     All({"Timed out ending http request"})},
    {"slow headers", "slowhead", false, normal, All(success)},
    {"slow body", "slowbody", false, normal, All(success)},
    {"reset during the headers", "resethead", false, normal, All({"Error ending http request: CONNECTION RESET"}),
     "a connection lost before the headers are whole ends the request as an empty reply there",
     {success, success, success, Texts{"Empty XML data"}}},
    // Wine completes the read with the Winsock code 10054, outside WinInet's range, so the words
    // are those of the thread's last system error (none); when the reset comes before the read,
    // the 1000 bytes read so far are the reply.
    {"reset during the body", "reset", false, normal, All({"Error reading requested data: CONNECTION RESET"}),
     "a reset in the body is reported with a Winsock code, or not at all",
     {Texts{"Error reading requested data: Success.", ""}, Texts{"Error reading requested data: Success.", ""},
      Texts{"Error reading requested data: Success.", ""},
      Texts{"Error reading requested data: Success.", "Empty XML data"}}},
    {"Content-Length longer than the body", "shortbody", false, normal,
     All({"Error reading requested data: CONNECTION ABORTED"}),
     "a body that ends before Content-Length reads as a normal end there", All(success)},
    {"garbage instead of HTTP", "garbage", false, normal,
     All({"Error ending http request: INVALID SERVER RESPONSE"}),
     "a reply without a status line is taken as a bare body there",
     {success, success, success, Texts{"Empty XML data"}}},
    {"TLS, unknown CA", "untrusted", true, normal, All({"Error sending request: INTERNET INVALID CA"})},
    {"TLS, expired certificate", "expired", true, normal,
     All({"Error sending request: INTERNET SEC CERT DATE INVALID"})},
    // The engine asks WinInet to ignore a certificate for another name (the CA is still checked).
    {"TLS, wrong host name", "wronghost", true, normal, All(success)},
};

// Runs one cell on a client of its own and returns the first error text.
std::string RunCell(const Row& row, Path path) {
  ProgressClient client(u"qorxmlu tests", String::FromUtf8(test::TheServers()[row.role]), row.secure, 5, 5);
  client.requestTimeout = row.requestTimeout;
  client.connectTimeout = std::min<DWORD>(row.requestTimeout, 5000);
  String reply;
  if (path == Base64Path) {
    char* buffer = nullptr;
    std::size_t length = 0;
    std::string text = FirstText(client.RetrieveBase64(4096, u"/doc", buffer, length));
    delete[] buffer;
    return text;
  }
  if (path == QueuePath) {
    SoapQueue queue;
    EXPECT_EQ(TakeText(queue.StartRunning(&client)), "");
    std::string text = FirstText(queue.AddBlockingSoap(SafeItem<SimpleSoap>(new SimpleSoap(u"/doc", 1, u""))));
    delete queue.StopRunning();
    return text;
  }
  if (path == ProgressPath) {
    client.AddFormField(u"data", String(std::u16string(256 << 10, u'p')));
    client.progressTotal = 256 << 10;
    client.progressDuration = 100;
    client.progressInterval = 10;
  }
  std::string text = FirstText(client.Retrieve(u"/doc", reply));
  // A body that went out whole shows 100 before the reply is read.
  if (path == ProgressPath && text.empty() && client.Last() != 100)
    return "progress ended at " + std::to_string(client.Last());
  return text;
}

TEST_F(HttpClientNetTest, EveryFaultOnEveryPath) {
  const bool wine = test::RunningOnWine();
  for (const Row& row : matrix) {
    for (int path = 0; path < pathCount; ++path) {
      const Texts& expected = (wine && row.wineDiffers ? row.wine : row.native)[path];
      auto start = std::chrono::steady_clock::now();
      std::string text = RunCell(row, static_cast<Path>(path));
      // Natively nothing waits longer than the limits it was given.
      if (!wine && std::chrono::steady_clock::now() - start > 3s) text += " (after more than 3 s)";
      if (std::find(expected.begin(), expected.end(), text) == expected.end())
        ADD_FAILURE() << row.fault << " / " << pathNames[path] << ": got \"" << text << "\", expected \""
                      << expected.front() << "\""
                      << (wine && row.wineDiffers ? std::string(" (Wine: ") + row.wineDiffers + ")" : "");
    }
    // Under Wine a stalled call completes only when the server gives up (after 2 s); its late
    // callbacks must find nothing freed, so the process stays until they have come.
    if (wine && row.requestTimeout == impatient) std::this_thread::sleep_for(2500ms);
  }
}

} // namespace
} // namespace QOR
