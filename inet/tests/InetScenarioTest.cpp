// The recorded call sequences, run natively. Step for step they are compared with Wine's
// wininet.dll by WineTraceTest; here go what that comparison cannot see (what the server got)
// and the WinInet codes that only these sequences reach natively (HttpClientNetTest's fault
// matrix gives the codes of refused, unresolved, reset, cut-short and certificate failures
// through the engine).
#include "Scenarios.h"
#include "TraceSteps.h"
#include "support/RawServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace QOR::inettest {
namespace {

class InetScenarioTest : public testing::Test {
protected:
  static void SetUpTestSuite() {
    servers = test::StartServers();
    test::TrustTestCa(servers->Addresses());
  }
  static void TearDownTestSuite() {
    servers.reset();
    test::ForgetTestCa();
  }
  static Lines Run(const std::string& name) { return CanonicalTrace(RunScenario(name, servers->Addresses())); }
  static inline std::unique_ptr<test::ServerSet> servers;
};

// True when `part` occurs in `lines` as consecutive lines.
bool HasRun(const Lines& lines, const Lines& part) {
  return std::search(lines.begin(), lines.end(), part.begin(), part.end()) != lines.end();
}

TEST_F(InetScenarioTest, NormalRequestsFollowWinInetAndShareOneConnection) {
  Lines trace = Run("normal");
  // Step for step the trace is WineTraceTest's; natively, the send pends and the loop thread
  // reports the head sent, as many bytes as the server got.
  EXPECT_TRUE(HasRun(trace, {"  W 30", "  W 31 651", "  W 100 (1,0)", "InternetWriteFile(300) -> 300"}))
      << ShowLines(trace);

  const test::RawServer& server = servers->Raw("answer");
  EXPECT_EQ(server.Connections(), 1);
  auto heads = server.Requests();
  ASSERT_EQ(heads.size(), 2u);
  EXPECT_EQ(heads[0].requestLine, "POST /path HTTP/1.1");
  EXPECT_EQ(heads[1].requestLine, "POST /php/SafeTrace.php HTTP/1.1");
  // The values of Content-Type, Content-Length, User-Agent, Referer and Accept are pinned through
  // the engine (HttpClientNetTest); the head's size pins the rest.
  std::vector<std::string> names;
  for (const auto& header : heads[0].headers) names.push_back(header.first);
  EXPECT_EQ(names, (std::vector<std::string>{"Referer", "Accept", "Content-Type", "Host", "Content-Length",
                                              "User-Agent", "Cache-Control", "Connection"}));
  EXPECT_EQ(heads[0].Header("Host"), servers->Addresses()["answer"]);
  EXPECT_EQ(heads[0].Header("Cache-Control"), "no-cache");
  EXPECT_EQ(heads[0].Header("Connection"), "Keep-Alive");
  EXPECT_EQ(heads[0].headBytes, 651u);
}

// Steps a scenario's trace must hold, in a row.
struct Passage {
  const char* behaviour;
  const char* scenario;
  Lines steps;
};

TEST_F(InetScenarioTest, TracesHoldWinInetsSteps) {
  const Passage passages[] = {
      {"a failed send leaves the end to complete as cancelled", "refused",
       {"  W 20", "  W 100 (0,12029)", "HttpEndRequestW -> pending", "  W 100 (0,12017)"}},
      {"calls on a closed request fail at once with WinInet's codes", "handles",
       {
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
       }},
      {"a closed connection handle is unknown", "handles",
       {"InternetCloseHandle(conn) -> TRUE", "  70 conn", "InternetCloseHandle(conn) -> FALSE 6"}},
      {"a certificate for another name fails without IGNORE_CERT_CN_INVALID", "https-wrongname",
       {"  W 21 \"127.0.0.1\"", "  W 100 (0,12038)", "HttpEndRequestW -> pending", "  W 100 (0,12017)"}},
      {"upload ends with the rest of its last block", "bigpost",
       {"InternetWriteFile(20480) -> 20480", "HttpEndRequestW -> pending"}},
      {"download ends with an empty read", "bigreply",
       {"InternetReadFileExA(102400) -> 24576", "InternetReadFileExA(77824) -> 0"}},
      {"empty reply reads 0 at once", "emptyreply",
       {"  W 100 (1,0)", "InternetReadFileExA(102400) -> 0", "InternetCloseHandle(req) -> TRUE"}},
      {"no status line is an error", "noreply",
       {"HttpEndRequestW -> pending", "  W 40", "  W 100 (0,12152)", "InternetCloseHandle(req) -> TRUE"}},
  };
  std::map<std::string, Lines> traces;
  for (const Passage& passage : passages) {
    if (!traces.count(passage.scenario)) traces[passage.scenario] = Run(passage.scenario);
    const Lines& trace = traces[passage.scenario];
    EXPECT_TRUE(HasRun(trace, passage.steps)) << passage.behaviour << "\n" << ShowLines(trace);
  }
  // Whole blocks both ways, however the reply trickles in.
  traces["trickle"] = Run("trickle");
  for (auto [scenario, call, count] : {std::tuple<const char*, const char*, long>{"bigpost", "InternetWriteFile", 51},
                                       {"bigreply", "InternetReadFileExA", 10},
                                       {"trickle", "InternetReadFileExA", 10}}) {
    const Lines& trace = traces[scenario];
    EXPECT_EQ(std::count(trace.begin(), trace.end(), std::string(call) + "(102400) -> 102400"), count) << scenario;
  }
}

} // namespace
} // namespace QOR::inettest
