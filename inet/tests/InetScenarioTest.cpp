// The recorded call sequences, run natively: libqorinet must give WinInet's trace call for call,
// and where Wine falls short of Windows, the behaviour Windows documents.
#include "Scenarios.h"
#include "TraceSteps.h"
#include "support/RawServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>

namespace QOR::inettest {
namespace {

using Lines = std::vector<std::string>;

class InetScenarioTest : public testing::Test {
protected:
  static void SetUpTestSuite() {
    // Servers that stall hold for 30 s: a request that is cut short was cut by the close.
    servers = test::StartServers(30000);
    test::TrustTestCa(servers->Addresses());
  }
  static void TearDownTestSuite() {
    servers.reset();
    test::ForgetTestCa();
  }
  static Lines Run(const std::string& name) { return CanonicalLines(RunScenario(name, servers->Addresses())); }
  static inline std::unique_ptr<test::ServerSet> servers;
};

// True when `part` occurs in `lines` as consecutive lines.
bool HasRun(const Lines& lines, const Lines& part) {
  return std::search(lines.begin(), lines.end(), part.begin(), part.end()) != lines.end();
}

std::string Show(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

const Lines opening = {
    "InternetOpenW -> root",
    "InternetSetStatusCallbackW -> NULL",
    "InternetConnectW(127.0.0.1) -> conn",
    "  C 60 conn",
};
const Lines closing = {
    "InternetCloseHandle(conn) -> TRUE",
    "  70 conn",
    "InternetSetStatusCallbackW(NULL) -> done",
    "InternetCloseHandle(root) -> TRUE",
};

Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST_F(InetScenarioTest, NormalRequestsFollowWinInetAndShareOneConnection) {
  Lines expected = Join({opening,
                         {
                             "HttpOpenRequestA(POST /path) -> req",
                             "  C 60 req",
                             "HttpAddRequestHeadersW(REPLACE) -> TRUE",
                             "HttpSendRequestExW(300) -> pending",
                             "  W 10 \"127.0.0.1\"",
                             "  W 11 \"127.0.0.1\"",
                             "  W 20",
                             "  W 21 \"127.0.0.1\"",
                             "  W 30",
                             "  W 31 651",
                             "  W 100 (1,0)",
                             "InternetWriteFile(300) -> 300",
                             "HttpEndRequestW -> pending",
                             "  W 40",
                             "  W 41 16",
                             "  W 100 (1,0)",
                             "InternetReadFileExA(102400) -> 120",
                             "InternetReadFileExA(102280) -> 0",
                             "InternetCloseHandle(req) -> TRUE",
                             "  70 req",
                             // The second request finds the connection in the pool.
                             "HttpOpenRequestA(POST php/SafeTrace.php) -> req",
                             "  C 60 req",
                             "HttpAddRequestHeadersW(REPLACE) -> TRUE",
                             "HttpSendRequestExW(300) -> pending",
                             "  W 30",
                             "  W 31 664",
                             "  W 100 (1,0)",
                             "InternetWriteFile(300) -> 300",
                             "HttpEndRequestW -> pending",
                             "  W 40",
                             "  W 41 16",
                             "  W 100 (1,0)",
                             "InternetReadFileExA(102400) -> 120",
                             "InternetReadFileExA(102280) -> 0",
                             "InternetCloseHandle(req) -> TRUE",
                             "  70 req",
                         },
                         closing});
  EXPECT_EQ(Run("normal"), expected);

  const test::RawServer& server = servers->Raw("answer");
  EXPECT_EQ(server.Connections(), 1);
  auto heads = server.Requests();
  ASSERT_EQ(heads.size(), 2u);
  EXPECT_EQ(heads[0].requestLine, "POST /path HTTP/1.1");
  EXPECT_EQ(heads[1].requestLine, "POST /php/SafeTrace.php HTTP/1.1");
  std::vector<std::string> names;
  for (const auto& header : heads[0].headers) names.push_back(header.first);
  EXPECT_EQ(names, (std::vector<std::string>{"Referer", "Accept", "Content-Type", "Host", "Content-Length",
                                              "User-Agent", "Cache-Control", "Connection"}));
  EXPECT_EQ(heads[0].Header("Content-Type"), "multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p");
  EXPECT_EQ(heads[0].Header("Host"), servers->Addresses()["answer"]);
  EXPECT_EQ(heads[0].Header("Content-Length"), "300");
  EXPECT_EQ(heads[0].Header("User-Agent"), "qorinet-test");
  EXPECT_EQ(heads[0].Header("Cache-Control"), "no-cache");
  EXPECT_EQ(heads[0].Header("Connection"), "Keep-Alive");
  EXPECT_EQ(heads[0].Header("Accept").substr(0, 22), "image/gif, image/x-xbi");
  EXPECT_EQ(heads[0].headBytes, 651u);
}

TEST_F(InetScenarioTest, FailedSendCompletesWithItsErrorAndTheEndWithCancelled) {
  for (auto [name, host, steps] : {std::tuple<const char*, const char*, Lines>{
                                       "refused", "127.0.0.1",
                                       {"  W 10 \"127.0.0.1\"", "  W 11 \"127.0.0.1\"", "  W 20", "  W 100 (0,12029)"}},
                                   {"nohost", "no-such-host.invalid",
                                    {"  W 10 \"no-such-host.invalid\"", "  W 100 (0,12007)"}}}) {
    Lines expected = {"InternetOpenW -> root", "InternetSetStatusCallbackW -> NULL",
                      "InternetConnectW(" + std::string(host) + ") -> conn", "  C 60 conn",
                      "HttpOpenRequestA(POST /path) -> req", "  C 60 req", "HttpAddRequestHeadersW(REPLACE) -> TRUE",
                      "HttpSendRequestExW(300) -> pending"};
    expected.insert(expected.end(), steps.begin(), steps.end());
    expected = Join({expected,
                     {"HttpEndRequestW -> pending", "  W 100 (0,12017)", "InternetCloseHandle(req) -> TRUE", "  70 req"},
                     closing});
    EXPECT_EQ(Run(name), expected) << name;
  }
}

TEST_F(InetScenarioTest, DeadHandlesFailAtOnceWithWinInetCodes) {
  Lines trace = Run("handles");
  EXPECT_TRUE(HasRun(trace, {
                                "InternetCloseHandle(req) -> TRUE",
                                "  70 req",
                                "InternetCloseHandle(req) -> FALSE 6",
                                "HttpAddRequestHeadersW(REPLACE) -> FALSE 12018",
                                "HttpSendRequestExW(300) -> FALSE 12018",
                                "InternetWriteFile(16) -> error 6",
                                "HttpEndRequestW -> FALSE 12018",
                                "InternetReadFileExA(16) -> error 6",
                                "InternetCloseHandle(NULL) -> FALSE 6",
                                "HttpOpenRequestA(POST /after) -> req",
                            }))
      << Show(trace);
  EXPECT_TRUE(HasRun(trace, {"InternetCloseHandle(conn) -> TRUE", "  70 conn", "InternetCloseHandle(conn) -> FALSE 6"}))
      << Show(trace);
}

// Steps a scenario's trace must hold, in a row.
struct Passage {
  const char* behaviour;
  const char* scenario;
  Lines steps;
};

TEST_F(InetScenarioTest, TracesHoldWinInetsSteps) {
  const Passage passages[] = {
      {"upload ends with the rest of its last block", "bigpost",
       {"InternetWriteFile(20480) -> 20480", "HttpEndRequestW -> pending"}},
      {"download ends with an empty read", "bigreply",
       {"InternetReadFileExA(102400) -> 24576", "InternetReadFileExA(77824) -> 0"}},
      {"empty reply reads 0 at once", "emptyreply",
       {"  W 100 (1,0)", "InternetReadFileExA(102400) -> 0", "InternetCloseHandle(req) -> TRUE"}},
      {"a 404 body reads like any other", "notfound",
       {"  W 41 23", "  W 100 (1,0)", "InternetReadFileExA(102400) -> 18", "InternetReadFileExA(102382) -> 0"}},
      {"a body cut short is an error", "midclose",
       {"InternetReadFileExA(102400) -> 4000", "InternetReadFileExA(98400) -> error 12030",
        "InternetCloseHandle(req) -> TRUE"}},
      {"no status line is an error", "noreply",
       {"HttpEndRequestW -> pending", "  W 40", "  W 100 (0,12152)", "InternetCloseHandle(req) -> TRUE"}},
      {"a dropped pooled connection is replaced silently", "stale",
       {"HttpOpenRequestA(POST /second) -> req", "  C 60 req", "HttpAddRequestHeadersW(REPLACE) -> TRUE",
        "HttpSendRequestExW(300) -> pending", "  W 20", "  W 21 \"127.0.0.1\"", "  W 30", "  W 31 653",
        "  W 100 (1,0)", "InternetWriteFile(300) -> 300"}},
  };
  std::map<std::string, Lines> traces;
  for (const Passage& passage : passages) {
    Lines& trace = traces[passage.scenario] = Run(passage.scenario);
    EXPECT_TRUE(HasRun(trace, passage.steps)) << passage.behaviour << "\n" << Show(trace);
  }
  // Whole blocks both ways, however the reply trickles in.
  traces["trickle"] = Run("trickle");
  for (auto [scenario, call, count] : {std::tuple<const char*, const char*, long>{"bigpost", "InternetWriteFile", 51},
                                       {"bigreply", "InternetReadFileExA", 10},
                                       {"trickle", "InternetReadFileExA", 10}}) {
    const Lines& trace = traces[scenario];
    EXPECT_EQ(std::count(trace.begin(), trace.end(), std::string(call) + "(102400) -> 102400"), count) << scenario;
  }
  EXPECT_EQ(servers->Raw("stale").Connections(), 2);
}

TEST_F(InetScenarioTest, CertificateVerdictsMapToWinInetCodes) {
  for (auto [name, code] : {std::pair<const char*, const char*>{"https-untrusted", "12045"},
                            {"https-wrongname", "12038"},
                            {"https-expired", "12037"}}) {
    Lines trace = Run(name);
    EXPECT_TRUE(HasRun(trace, {"  W 21 \"127.0.0.1\"", std::string("  W 100 (0,") + code + ")",
                               "HttpEndRequestW -> pending", "  W 100 (0,12017)"}))
        << name << "\n"
        << Show(trace);
  }
  for (const char* name : {"https-trusted", "https-wrongname-ignored"}) {
    Lines trace = Run(name);
    EXPECT_TRUE(HasRun(trace, {"InternetReadFileExA(102400) -> 300", "InternetReadFileExA(102100) -> 0"}))
        << name << "\n"
        << Show(trace);
  }
}

} // namespace
} // namespace QOR::inettest
