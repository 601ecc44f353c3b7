#include "InetDriver.h"

#include <wincrypt.h>

#include <fstream>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace QOR::inettest {

namespace {
// The certificate put into the root store, taken out again by ForgetTrustedCertificate.
std::string trustedDer;
} // namespace

// WinInet verifies against the system's root store: the certificate goes in there.
bool TrustCertificate(const std::string&, const std::string& derFile) {
  std::ifstream in(derFile, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  if (!CertAddEncodedCertificateToSystemStoreA("Root", reinterpret_cast<const BYTE*>(der.data()),
                                               static_cast<DWORD>(der.size())))
    return false;
  trustedDer = der;
  return true;
}

void ForgetTrustedCertificate() {
  if (trustedDer.empty()) return;
  PCCERT_CONTEXT wanted = CertCreateCertificateContext(
      X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(trustedDer.data()), static_cast<DWORD>(trustedDer.size()));
  HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "Root");
  BYTE thumbprint[20];
  DWORD size = sizeof thumbprint;
  if (wanted && root && CertGetCertificateContextProperty(wanted, CERT_SHA1_HASH_PROP_ID, thumbprint, &size)) {
    CRYPT_HASH_BLOB hash{size, thumbprint};
    PCCERT_CONTEXT found = CertFindCertificateInStore(root, X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &hash, nullptr);
    if (found) CertDeleteCertificateFromStore(found); // frees `found` too
    // Wine keeps the registry copy of a deleted root certificate: remove that too.
    char key[128] = "Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\";
    for (DWORD i = 0; i < size; ++i) std::snprintf(key + std::strlen(key), 3, "%02X", thumbprint[i]);
    RegDeleteKeyA(HKEY_CURRENT_USER, key);
  }
  if (root) CertCloseStore(root, 0);
  if (wanted) CertFreeCertificateContext(wanted);
  trustedDer.clear();
}

} // namespace QOR::inettest
