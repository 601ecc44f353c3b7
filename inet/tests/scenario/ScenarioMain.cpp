// Runs the scenarios against the servers of QORXMLU_TEST_SERVERS and prints their traces:
//   inet_scenario [scenario ...]
// Each trace starts with "== <name>". Without scenario names, all of them run.
#include "Scenarios.h"

#include <cstdio>
#include <string>

using namespace QOR::inettest;

int main(int argc, char** argv) {
  const ScenarioConfig& servers = QOR::test::TheServers();
  if (!QOR::test::TrustTestCa(servers)) std::fprintf(stderr, "cannot trust %s\n", servers.caDerFile.c_str());
  std::vector<std::string> names(argv + 1, argv + argc);
  if (names.empty()) {
    for (const ScenarioInfo& scenario : AllScenarios()) names.emplace_back(scenario.name);
  }
  for (const std::string& name : names) {
    std::printf("== %s\n", name.c_str());
    for (const std::string& line : RunScenario(name, servers)) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
  QOR::test::ForgetTestCa();
  return 0;
}
