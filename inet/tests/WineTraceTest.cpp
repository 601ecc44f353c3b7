// Runs every scenario through libqorinet (natively) and through Wine's wininet.dll (the
// cross-built scenario program under Wine), each against servers of its own, and compares the
// traces step by step. Registered by the Windows build:
//   inet_wine_trace_test --windows-scenario <inet_scenario.exe> --wine <wine>
// Both traces are compared in the canonical form of TraceSteps.h.
#include "Scenarios.h"
#include "TraceSteps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace QOR::inettest {
namespace {

std::string windowsScenario;
std::string wineCommand = "wine";

// Where Wine is the odd one: from this call on, Wine does what the reason says and libqorinet
// does what Windows documents (and what the native tests check).
struct KnownDifference {
  const char* scenario;
  const char* fromCall;
  const char* reason;
};

const KnownDifference knownDifferences[] = {
    {"midclose", "InternetReadFileExA(98400)",
     "Wine ends a body cut short before Content-Length as if complete (TRUE 0); libqorinet fails the read "
     "with 12030 (ERROR_INTERNET_CONNECTION_ABORTED), so no data is lost silently"},
    {"noreply", "HttpEndRequestW",
     "Wine completes HttpEndRequestW with success and an empty reply when the server closes without a "
     "status line; libqorinet reports 12152 (ERROR_HTTP_INVALID_SERVER_RESPONSE)"},
};

using Traces = std::map<std::string, Lines>;

Traces RunProgram(const std::string& command) {
  Traces traces;
  FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
  if (!pipe) return traces;
  std::string current;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe)) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (text.rfind("== ", 0) == 0) {
      current = text.substr(3);
      traces[current];
    } else if (!current.empty()) {
      traces[current].push_back(text);
    }
  }
  pclose(pipe);
  return traces;
}

class WineTraceTest : public testing::TestWithParam<ScenarioInfo> {
public:
  static void SetUpTestSuite() {
    linuxTraces = RunWithServers("'" QORINET_SCENARIO "'");
    wineTraces = RunWine("");
  }
  // The scenario program under Wine; `only` names one scenario.
  static Traces RunWine(const std::string& only) {
    return RunWithServers(wineCommand + " '" + windowsScenario + "' " + only);
  }
  // Runs a scenario program against servers of its own (the servers hold a stalled request 3 s).
  static Traces RunWithServers(const std::string& command) {
    auto servers = test::StartServers(3000);
    setenv("QORXMLU_TEST_SERVERS", servers->Addresses().Encode().c_str(), 1);
    return RunProgram(command);
  }
  static inline Traces linuxTraces;
  static inline Traces wineTraces;
};

TEST_P(WineTraceTest, SameStepsAsWine) {
  const std::string name = GetParam().name;
  ASSERT_FALSE(windowsScenario.empty()) << "no --windows-scenario given";
  ASSERT_TRUE(linuxTraces.count(name)) << "libqorinet's scenario program did not run " << name;
  ASSERT_TRUE(wineTraces.count(name)) << "the scenario program under Wine did not run " << name;
  Lines ours = CanonicalTrace(linuxTraces[name]);
  Lines wine = CanonicalTrace(wineTraces[name]);

  const KnownDifference* known = nullptr;
  for (const KnownDifference& difference : knownDifferences) {
    if (name == difference.scenario) known = &difference;
  }
  // The call at which the traces part: the line where they differ first, or the call of that
  // callback (the end of the shorter one if it is the other's start).
  std::size_t at = std::mismatch(ours.begin(), ours.end(), wine.begin(), wine.end()).first - ours.begin();
  const Lines& longer = ours.size() > wine.size() ? ours : wine;
  while (at > 0 && at < longer.size() && longer[at].rfind("  ", 0) == 0) --at;
  // Wine's verdict on a certificate now and then changes from one run to the next (INVALID_CA,
  // on a fresh prefix, for a CA it trusted a moment before): a parting counts only if a second
  // run of the scenario under Wine parts too.
  if (!known && ours != wine) {
    Traces again = RunWine(name);
    if (again.count(name) && CanonicalTrace(again[name]) == ours) {
      std::printf("%s: Wine's first run parted at line %zu, its second run did not.\n  Wine's first run:\n%s",
                  name.c_str(), at + 1, ShowLines(wine, at, at + 10).c_str());
      return;
    }
  }
  if (ours == wine) {
    EXPECT_EQ(known, nullptr) << "the recorded difference is gone: " << known->reason;
    return;
  }
  if (known && at < ours.size() && ours[at].rfind(known->fromCall, 0) == 0) {
    std::printf("%s: Wine differs from line %zu on, as recorded.\n  Why: %s\n  libqorinet:\n%s  Wine:\n%s",
                name.c_str(), at + 1, known->reason, ShowLines(ours, at).c_str(), ShowLines(wine, at).c_str());
    return;
  }
  // The parting lines only, so that the two sides fit on one screen.
  ADD_FAILURE() << name << ": the traces part at line " << at + 1 << "\n  libqorinet:\n"
                << ShowLines(ours, at, at + 10) << "  Wine:\n"
                << ShowLines(wine, at, at + 10);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, WineTraceTest, testing::ValuesIn(AllScenarios()),
                         [](const testing::TestParamInfo<ScenarioInfo>& info) {
                           std::string name = info.param.name;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

} // namespace
} // namespace QOR::inettest

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  for (int i = 1; i + 1 < argc; ++i) {
    std::string argument = argv[i];
    if (argument == "--windows-scenario") QOR::inettest::windowsScenario = argv[++i];
    if (argument == "--wine") QOR::inettest::wineCommand = argv[++i];
  }
  return RUN_ALL_TESTS();
}
