#include "InetDriver.h"

#include <wincrypt.h>

#include <fstream>
#include <iterator>

namespace QOR::inettest {

namespace {
// The certificate added to the root store, removed again by ForgetTrustedCertificate.
PCCERT_CONTEXT trusted = nullptr;
} // namespace

// WinInet verifies against the system's root store: the certificate goes in there.
bool TrustCertificate(const std::string&, const std::string& derFile) {
  std::ifstream in(derFile, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  HCERTSTORE root = CertOpenSystemStoreA(0, "Root");
  if (!root) return false;
  BOOL added = CertAddEncodedCertificateToStore(root, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                                &trusted);
  CertCloseStore(root, 0);
  return added != FALSE;
}

void ForgetTrustedCertificate() {
  if (!trusted) return;
  CertDeleteCertificateFromStore(trusted); // frees the context too
  trusted = nullptr;
}

} // namespace QOR::inettest
