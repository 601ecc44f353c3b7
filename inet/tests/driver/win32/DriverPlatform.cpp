#include "InetDriver.h"

#include <wincrypt.h>

#include <fstream>
#include <iterator>

namespace QOR::inettest {

bool RunningUnderWine() {
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// WinInet verifies against the system's root store: the certificate goes in there.
bool TrustCertificate(const std::string&, const std::string& derFile) {
  std::ifstream in(derFile, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  return CertAddEncodedCertificateToSystemStoreA("Root", reinterpret_cast<const BYTE*>(der.data()),
                                                 static_cast<DWORD>(der.size())) != FALSE;
}

} // namespace QOR::inettest
