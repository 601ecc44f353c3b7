// Runs the scenarios against the servers named on the command line and prints their traces:
//   inet_scenario [--trust <ca.pem> <ca.der>] role=host:port ... [scenario ...]
// Each trace starts with "== <name>". Without scenario names, all of them run.
#include "Scenarios.h"

#include <cstdio>
#include <string>

using namespace QOR::inettest;

int main(int argc, char** argv) {
  ScenarioConfig config;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument == "--trust" && i + 2 < argc) {
      if (!TrustCertificate(argv[i + 1], argv[i + 2])) std::fprintf(stderr, "cannot trust %s\n", argv[i + 2]);
      i += 2;
    } else if (auto equals = argument.find('='); equals != std::string::npos) {
      config.servers[argument.substr(0, equals)] = argument.substr(equals + 1);
    } else {
      names.push_back(argument);
    }
  }
  if (names.empty()) {
    for (const ScenarioInfo& scenario : AllScenarios()) names.emplace_back(scenario.name);
  }
  for (const std::string& name : names) {
    std::printf("== %s\n", name.c_str());
    for (const std::string& line : RunScenario(name, config)) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
  return 0;
}
