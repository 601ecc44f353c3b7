#include "TestServers.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace QOR::test {

const std::string& ServerAddresses::operator[](const std::string& role) const {
  auto found = address.find(role);
  if (found == address.end()) throw std::runtime_error("no test server for the role " + role);
  return found->second;
}

std::string ServerAddresses::Encode() const {
  std::string text;
  for (const auto& [role, where] : address) text += role + "=" + where + ";";
  return text + "ca=" + caFile + ";cader=" + caDerFile;
}

ServerAddresses ServerAddresses::Decode(const std::string& text) {
  ServerAddresses servers;
  std::stringstream entries(text);
  std::string entry;
  while (std::getline(entries, entry, ';')) {
    auto equals = entry.find('=');
    if (equals == std::string::npos) continue;
    std::string role = entry.substr(0, equals), value = entry.substr(equals + 1);
    (role == "ca" ? servers.caFile : role == "cader" ? servers.caDerFile : servers.address[role]) = value;
  }
  return servers;
}

const ServerAddresses& TheServers() {
  static std::unique_ptr<ServerSet> local;
  static const ServerAddresses servers = [] {
    if (const char* given = std::getenv("QORXMLU_TEST_SERVERS")) return ServerAddresses::Decode(given);
    local = StartServers();
    if (!local) throw std::runtime_error("QORXMLU_TEST_SERVERS is not set: run through qorxmlu_test_host");
    return local->Addresses();
  }();
  return servers;
}

} // namespace QOR::test
