// The Windows side of the end-to-end tests: the servers run in the native http_net_host.
#include "NetServers.h"

#include <windows.h>
#include <wincrypt.h>

#include <fstream>
#include <iterator>

namespace QOR::test {

std::unique_ptr<NetServerSet> StartNetServers() { return nullptr; }

bool RunningUnderWine() {
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// wininet.dll verifies peers against the system's root store. The host passes Linux paths,
// which Wine shows on drive Z:.
bool TrustTestCa(const NetServers& servers) {
  std::string path = servers.caDerFile;
  if (!path.empty() && path[0] == '/') path = "Z:" + path;
  std::ifstream in(path, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  return CertAddEncodedCertificateToSystemStoreA("Root", reinterpret_cast<const BYTE*>(der.data()),
                                                 static_cast<DWORD>(der.size())) != FALSE;
}

} // namespace QOR::test
