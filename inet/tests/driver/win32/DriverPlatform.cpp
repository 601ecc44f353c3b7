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

PCCERT_CONTEXT ContextOf(const std::string& der) {
  return CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                      static_cast<DWORD>(der.size()));
}

HCERTSTORE OpenRoot() {
  return CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, "Root");
}

// Deletes `found` (and frees it). Wine keeps the registry copy of a deleted root certificate:
// that goes too.
void DeleteFromRoot(PCCERT_CONTEXT found) {
  BYTE thumbprint[20];
  DWORD size = sizeof thumbprint;
  if (CertGetCertificateContextProperty(found, CERT_SHA1_HASH_PROP_ID, thumbprint, &size)) {
    char key[128] = "Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\";
    for (DWORD i = 0; i < size; ++i) std::snprintf(key + std::strlen(key), 3, "%02X", thumbprint[i]);
    RegDeleteKeyA(HKEY_CURRENT_USER, key);
  }
  CertDeleteCertificateFromStore(found);
}

// A run cut short leaves its CA behind; one of the same name would then stand in the chain in
// place of this run's and fail every verification.
void DeleteSameSubject(const std::string& der) {
  PCCERT_CONTEXT wanted = ContextOf(der);
  HCERTSTORE root = OpenRoot();
  if (wanted && root) {
    PCCERT_CONTEXT found = nullptr;
    while ((found = CertFindCertificateInStore(root, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_NAME,
                                               &wanted->pCertInfo->Subject, nullptr)))
      DeleteFromRoot(found);
  }
  if (root) CertCloseStore(root, 0);
  if (wanted) CertFreeCertificateContext(wanted);
}
} // namespace

// WinInet verifies against the system's root store: the certificate goes in there.
bool TrustCertificate(const std::string&, const std::string& derFile) {
  std::ifstream in(derFile, std::ios::binary);
  std::string der((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (der.empty()) return false;
  DeleteSameSubject(der);
  if (!CertAddEncodedCertificateToSystemStoreA("Root", reinterpret_cast<const BYTE*>(der.data()),
                                               static_cast<DWORD>(der.size())))
    return false;
  trustedDer = der;
  return true;
}

void ForgetTrustedCertificate() {
  if (trustedDer.empty()) return;
  DeleteSameSubject(trustedDer);
  trustedDer.clear();
}

} // namespace QOR::inettest
