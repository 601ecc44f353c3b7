#include "InetDriver.h"

#include <cstdlib>

namespace QOR::inettest {

bool RunningUnderWine() { return false; }

// libqorinet verifies against the file in SSL_CERT_FILE.
bool TrustCertificate(const std::string& pemFile, const std::string&) {
  return setenv("SSL_CERT_FILE", pemFile.c_str(), 1) == 0;
}

} // namespace QOR::inettest
