// Server faults against every way a host reaches the network: each cell is the exact first error
// text the host gets (or success), natively through libqorinet and under Wine through wininet.dll.
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/query/SoapQueue.h>

#include "ErrorText.h"
#include "NetServers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using namespace std::chrono_literals;

// The first text of the chain, "" for success.
std::string FirstText(ErrorInfo* error) {
  std::vector<std::string> texts = test::TakeTexts(error);
  return texts.empty() ? "" : texts.front();
}

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

private:
  std::mutex lock;
  int last = -1;
};

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
  Cells wine;
  const char* wineDiffers; // why the Wine row is not the native one
};

constexpr DWORD normal = 5000;
constexpr DWORD impatient = 300;

const char* const sameOnWine = nullptr;

const std::vector<Row>& Matrix() {
  static const std::vector<Row> rows = {
      {"healthy server", "plain", false, normal, All(success), All(success), sameOnWine},
      {"healthy TLS server", "secure", true, normal, All(success), All(success), sameOnWine},
      {"connection refused", "refused", false, normal, All({"Error sending request: CANNOT CONNECT"}),
       All({"Error sending request: CANNOT CONNECT"}), sameOnWine},
      {"unresolved name", "unresolved", false, normal,
       All({"Error sending request: Problem accessing the Internet. UNRESOLVED URL"}),
       All({"Error sending request: Problem accessing the Internet. UNRESOLVED URL"}), sameOnWine},
      {"accepts and never answers", "stall2s", false, impatient,
       All({"Error ending http request: OPERATION CANCELLED", "Timed out ending http request"}),
       All({"Timed out ending http request"}),
       "a close does not end a pending call there: the step's own wait runs out"},
      {"slow headers", "slowhead", false, normal, All(success), All(success), sameOnWine},
      {"slow body", "slowbody", false, normal, All(success), All(success), sameOnWine},
      {"reset during the headers", "resethead", false, normal, All({"Error ending http request: CONNECTION RESET"}),
       {success, success, success, Texts{"Empty XML data"}},
       "a connection lost before the headers are whole ends the request as an empty reply there"},
      // Wine completes the read with the Winsock code 10054, outside WinInet's range, so the words
      // are those of the thread's last system error (none); when the reset comes before the read,
      // the 1000 bytes read so far are the reply.
      {"reset during the body", "reset", false, normal, All({"Error reading requested data: CONNECTION RESET"}),
       {Texts{"Error reading requested data: Success.", ""}, Texts{"Error reading requested data: Success.", ""},
        Texts{"Error reading requested data: Success.", ""},
        Texts{"Error reading requested data: Success.", "Empty XML data"}},
       "a reset in the body is reported with a Winsock code, or not at all"},
      {"Content-Length longer than the body", "shortbody", false, normal,
       All({"Error reading requested data: CONNECTION ABORTED"}), All(success),
       "a body that ends before Content-Length reads as a normal end there"},
      {"garbage instead of HTTP", "garbage", false, normal,
       All({"Error ending http request: INVALID SERVER RESPONSE"}),
       {success, success, success, Texts{"Empty XML data"}},
       "a reply without a status line is taken as a bare body there"},
      {"TLS, unknown CA", "untrusted", true, normal, All({"Error sending request: INTERNET INVALID CA"}),
       All({"Error sending request: INTERNET INVALID CA"}), sameOnWine},
      {"TLS, expired certificate", "expired", true, normal,
       All({"Error sending request: INTERNET SEC CERT DATE INVALID"}),
       All({"Error sending request: INTERNET SEC CERT DATE INVALID"}), sameOnWine},
      // The engine asks WinInet to ignore a certificate for another name (the CA is still checked).
      {"TLS, wrong host name", "wronghost", true, normal, All(success), All(success), sameOnWine},
  };
  return rows;
}

class FaultMatrixTest : public testing::Test {
protected:
  static void SetUpTestSuite() {
    servers = &test::TheNetServers();
    test::TrustTestCa(*servers);
    loadError = test::TakeText(HttpClient::InitialiseHttp());
  }
  static void TearDownTestSuite() { delete HttpClient::TerminateHttp(); }
  void SetUp() override { ASSERT_EQ(loadError, ""); }

  // Runs one cell on a client of its own and returns the first error text.
  static std::string Run(const Row& row, Path path) {
    auto client = std::make_unique<ProgressClient>(u"qorxmlu tests", String::FromUtf8((*servers)[row.role]),
                                                   row.secure, 5, 5);
    client->requestTimeout = row.requestTimeout;
    client->connectTimeout = std::min<DWORD>(row.requestTimeout, 5000);
    String reply;
    switch (path) {
    case RetrievePath:
      return FirstText(client->Retrieve(u"/doc", reply));
    case Base64Path: {
      char* buffer = nullptr;
      std::size_t length = 0;
      std::string text = FirstText(client->RetrieveBase64(4096, u"/doc", buffer, length));
      delete[] buffer;
      return text;
    }
    case ProgressPath: {
      client->AddFormField(u"data", String(std::u16string(256 << 10, u'p')));
      client->progressTotal = 256 << 10;
      client->progressDuration = 100;
      client->progressInterval = 10;
      std::string text = FirstText(client->Retrieve(u"/doc", reply));
      // A body that went out whole shows 100 before the reply is read.
      if (text.empty() && client->Last() != 100) return "progress ended at " + std::to_string(client->Last());
      return text;
    }
    case QueuePath: {
      SoapQueue queue;
      EXPECT_EQ(test::TakeText(queue.StartRunning(client.get())), "");
      std::string text = FirstText(queue.AddBlockingSoap(SafeItem<SimpleSoap>(new SimpleSoap(u"/doc", 1, u""))));
      delete queue.StopRunning();
      return text;
    }
    default:
      return "no such path";
    }
  }

  static inline const test::NetServers* servers = nullptr;
  static inline std::string loadError;
};

TEST_F(FaultMatrixTest, EveryFaultOnEveryPath) {
  const bool wine = test::RunningUnderWine();
  int passed = 0, cells = 0;
  for (const Row& row : Matrix()) {
    for (int path = 0; path < pathCount; ++path) {
      const Texts& expected = (wine ? row.wine : row.native)[path];
      auto start = std::chrono::steady_clock::now();
      std::string text = Run(row, static_cast<Path>(path));
      ++cells;
      // Natively nothing waits longer than the limits it was given.
      if (!wine && std::chrono::steady_clock::now() - start > 3s) text += " (after more than 3 s)";
      if (std::find(expected.begin(), expected.end(), text) != expected.end()) {
        ++passed;
        continue;
      }
      ADD_FAILURE() << row.fault << " / " << pathNames[path] << ": got \"" << text << "\", expected \""
                    << expected.front() << "\"" << (wine && row.wineDiffers ? " (Wine: " : "")
                    << (wine && row.wineDiffers ? row.wineDiffers : "") << (wine && row.wineDiffers ? ")" : "");
    }
    // Under Wine a stalled call completes only when the server gives up (after 2 s); its late
    // callbacks must find nothing freed, so the process stays until they have come.
    if (wine && row.requestTimeout == impatient) std::this_thread::sleep_for(2500ms);
  }
  std::printf("fault matrix (%s): %d of %d cells passed\n", wine ? "Wine" : "native", passed, cells);
}

} // namespace
} // namespace QOR
