#include "NetServers.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace QOR::test {

const std::string& NetServers::operator[](const std::string& role) const {
  auto found = address.find(role);
  if (found == address.end()) throw std::runtime_error("no test server for the role " + role);
  return found->second;
}

std::string NetServers::Encode() const {
  std::string text;
  for (const auto& [role, where] : address) text += role + "=" + where + ";";
  return text + "ca=" + caFile + ";cader=" + caDerFile;
}

NetServers NetServers::Decode(const std::string& text) {
  NetServers servers;
  std::stringstream entries(text);
  std::string entry;
  while (std::getline(entries, entry, ';')) {
    auto equals = entry.find('=');
    if (equals == std::string::npos) continue;
    std::string role = entry.substr(0, equals);
    std::string value = entry.substr(equals + 1);
    if (role == "ca")
      servers.caFile = value;
    else if (role == "cader")
      servers.caDerFile = value;
    else
      servers.address[role] = value;
  }
  return servers;
}

const NetServers& TheNetServers() {
  static std::unique_ptr<NetServerSet> local;
  static const NetServers servers = [] {
    if (const char* given = std::getenv("QORXMLU_NET_SERVERS")) return NetServers::Decode(given);
    local = StartNetServers();
    if (!local) throw std::runtime_error("QORXMLU_NET_SERVERS is not set: run through http_net_host");
    return local->Servers();
  }();
  return servers;
}

} // namespace QOR::test
