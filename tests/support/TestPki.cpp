#include "TestPki.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>

namespace QOR::test {

namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertDeleter {
  void operator()(X509* cert) const { X509_free(cert); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using CertPtr = std::unique_ptr<X509, CertDeleter>;

KeyPtr NewKey() {
  KeyPtr key(EVP_EC_gen("P-256"));
  if (!key) throw std::runtime_error("TestPki: no key");
  return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (!extension) throw std::runtime_error("TestPki: bad extension");
  X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
}

CertPtr NewCertificate(EVP_PKEY* key, const std::string& commonName, long serial, long fromDays, long toDays) {
  CertPtr cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), fromDays * 86400L);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), toDays * 86400L);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("qorxmlu tests"), -1,
                             -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                             -1, -1, 0);
  return cert;
}

void Sign(X509* cert, X509* issuer, EVP_PKEY* issuerKey) {
  X509_set_issuer_name(cert, X509_get_subject_name(issuer));
  if (!X509_sign(cert, issuerKey, EVP_sha256())) throw std::runtime_error("TestPki: cannot sign");
}

void WriteFile(const std::filesystem::path& path, const std::function<bool(FILE*)>& write) {
  FILE* file = std::fopen(path.string().c_str(), "wb");
  if (!file) throw std::runtime_error("TestPki: cannot write " + path.string());
  bool ok = write(file);
  std::fclose(file);
  if (!ok) throw std::runtime_error("TestPki: cannot write " + path.string());
}

std::filesystem::path NewFolder() {
  static std::atomic<int> counter{0};
  auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  auto folder = std::filesystem::temp_directory_path() /
                ("qorinet-pki-" + std::to_string(stamp) + "-" + std::to_string(counter++));
  std::filesystem::create_directories(folder);
  return folder;
}

} // namespace

struct TestPki::Keys {
  KeyPtr caKey;
  CertPtr caCert;
};

TestPki::TestPki() : folder(NewFolder()), keys(std::make_unique<Keys>()) {
  keys->caKey = NewKey();
  keys->caCert = NewCertificate(keys->caKey.get(), "qorxmlu test CA", serial++, -1, 365);
  X509* ca = keys->caCert.get();
  AddExtension(ca, ca, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(ca, ca, NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(ca, ca, NID_subject_key_identifier, "hash");
  Sign(ca, ca, keys->caKey.get());
  caFile = (folder / "ca.pem").string();
  caDerFile = (folder / "ca.der").string();
  WriteFile(caFile, [&](FILE* file) { return PEM_write_X509(file, ca) == 1; });
  WriteFile(caDerFile, [&](FILE* file) { return i2d_X509_fp(file, ca) == 1; });
}

TestPki::~TestPki() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

TestPki::ServerFiles TestPki::Issue(const std::string& name, const Options& options) {
  KeyPtr key = NewKey();
  CertPtr cert = NewCertificate(key.get(), options.commonName, serial++, options.validFromDays, options.validToDays);
  X509* issuer = options.selfSigned ? cert.get() : keys->caCert.get();
  EVP_PKEY* issuerKey = options.selfSigned ? key.get() : keys->caKey.get();
  AddExtension(cert.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), issuer, NID_key_usage, "critical,digitalSignature,keyEncipherment");
  AddExtension(cert.get(), issuer, NID_ext_key_usage, "serverAuth");
  if (options.addressInAltName) AddExtension(cert.get(), issuer, NID_subject_alt_name, "IP:127.0.0.1");
  Sign(cert.get(), issuer, issuerKey);

  ServerFiles files{(folder / (name + ".pem")).string(), (folder / (name + ".key")).string()};
  WriteFile(files.certificate, [&](FILE* file) { return PEM_write_X509(file, cert.get()) == 1; });
  WriteFile(files.key, [&](FILE* file) {
    return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
  return files;
}

} // namespace QOR::test
