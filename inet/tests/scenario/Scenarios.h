// The call sequences that libqorinet and WinInet are compared on, each run through an
// InetDriver against a server that the caller has started (see ScenarioServers.h). Portable:
// the same code runs natively and, cross-built, under Wine.
#pragma once

#include "InetDriver.h"

#include <map>
#include <string>
#include <vector>

namespace QOR::inettest {

struct ScenarioConfig {
  // Server role -> "host:port" (see ScenarioServers.h for the roles).
  std::map<std::string, std::string> servers;
};

struct ScenarioInfo {
  const char* name;
  void (*run)(InetDriver& driver, const ScenarioConfig& config);
};

// Every scenario, in the order the program runs them.
const std::vector<ScenarioInfo>& AllScenarios();
// Runs one scenario on a fresh driver and returns its trace (empty for an unknown name).
std::vector<std::string> RunScenario(const std::string& name, const ScenarioConfig& config);

} // namespace QOR::inettest
