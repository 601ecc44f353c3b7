#include "SoapService.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace QOR::test {

std::string SoapServiceAddresses::Encode() const { return "service=" + service + ";refused=" + refused; }

SoapServiceAddresses SoapServiceAddresses::Decode(const std::string& text) {
  SoapServiceAddresses addresses;
  std::stringstream entries(text);
  std::string entry;
  while (std::getline(entries, entry, ';')) {
    auto equals = entry.find('=');
    if (equals == std::string::npos) continue;
    std::string key = entry.substr(0, equals);
    if (key == "service") addresses.service = entry.substr(equals + 1);
    if (key == "refused") addresses.refused = entry.substr(equals + 1);
  }
  return addresses;
}

const SoapServiceAddresses& TheSoapService() {
  static std::unique_ptr<SoapServiceRun> local;
  static const SoapServiceAddresses addresses = [] {
    if (const char* given = std::getenv("QORXMLU_SOAP_SERVICE")) return SoapServiceAddresses::Decode(given);
    local = StartSoapService();
    if (!local) throw std::runtime_error("QORXMLU_SOAP_SERVICE is not set: run through qorxmlu_soap_service_host");
    return local->Addresses();
  }();
  return addresses;
}

} // namespace QOR::test
