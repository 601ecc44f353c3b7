// The Windows side of TestServers.h: the servers run in the native qorxmlu_test_host.
#include "TestServers.h"

#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace QOR::test {

namespace {

// The certificate put into the root store, taken out again by ForgetTestCa.
std::string trustedDer;

// Deletes every root certificate with the subject of `der`. A run cut short leaves its CA behind,
// and one of the same name would stand in the chain in place of this run's. Wine keeps a
// registry copy of a deleted root certificate: that goes too.
void DeleteSameSubject(const std::string& der) {
  PCCERT_CONTEXT wanted = CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                       static_cast<DWORD>(der.size()));
  HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "Root");
  PCCERT_CONTEXT found = nullptr;
  while (wanted && root &&
         (found = CertFindCertificateInStore(root, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_NAME,
                                             &wanted->pCertInfo->Subject, nullptr))) {
    BYTE thumbprint[20];
    DWORD size = sizeof thumbprint;
    if (CertGetCertificateContextProperty(found, CERT_SHA1_HASH_PROP_ID, thumbprint, &size)) {
      char key[128] = "Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\";
      for (DWORD i = 0; i < size; ++i) std::snprintf(key + std::strlen(key), 3, "%02X", thumbprint[i]);
      RegDeleteKeyA(HKEY_CURRENT_USER, key);
    }
    CertDeleteCertificateFromStore(found);
  }
  if (root) CertCloseStore(root, 0);
  if (wanted) CertFreeCertificateContext(wanted);
}

} // namespace

std::unique_ptr<ServerSet> StartServers(int) { return nullptr; }

bool RunningOnWine() {
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// WinInet verifies peers against the system's root store. The host passes Linux paths, which
// Wine shows on drive Z:.
bool TrustTestCa(const ServerAddresses& servers) {
  std::string path = servers.caDerFile;
  if (!path.empty() && path[0] == '/') path = "Z:" + path;
  std::ifstream in(path, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  DeleteSameSubject(der);
  if (!CertAddEncodedCertificateToSystemStoreA("Root", reinterpret_cast<const BYTE*>(der.data()),
                                               static_cast<DWORD>(der.size())))
    return false;
  trustedDer = der;
  return true;
}

void ForgetTestCa() {
  if (trustedDer.empty()) return;
  DeleteSameSubject(trustedDer);
  trustedDer.clear();
}

} // namespace QOR::test
