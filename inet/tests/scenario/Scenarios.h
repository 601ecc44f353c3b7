// The call sequences that libqorinet and WinInet are compared on, each run through an
// InetDriver against the servers of support/TestServers.h. Portable: the same code runs natively
// and, cross-built, under Wine.
#pragma once

#include "InetDriver.h"
#include "support/TestServers.h"

#include <map>
#include <string>
#include <vector>

namespace QOR::inettest {

using ScenarioConfig = test::ServerAddresses;

struct ScenarioInfo {
  const char* name;
  // Null: one POST of `size` bytes to `object` on the server of `role`, with `flags`.
  void (*run)(InetDriver& driver, const ScenarioConfig& config);
  const char* role = nullptr;
  const char* object = nullptr;
  std::size_t size = 300;
  DWORD flags = engineFlags;
};

// Every scenario, in the order the program runs them.
const std::vector<ScenarioInfo>& AllScenarios();
// Runs one scenario on a fresh driver and returns its trace (empty for an unknown name).
std::vector<std::string> RunScenario(const std::string& name, const ScenarioConfig& config);

} // namespace QOR::inettest
