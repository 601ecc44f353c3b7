// A certificate authority made at test time with OpenSSL, and server certificates issued by it
// (or signed by themselves), written as PEM files into a folder of its own.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

namespace QOR::test {

class TestPki {
public:
  // The PEM files of one server certificate and its key.
  struct ServerFiles {
    std::string certificate;
    std::string key;
  };
  struct Options {
    std::string commonName = "127.0.0.1";
    bool addressInAltName = true; // subjectAltName IP:127.0.0.1
    bool selfSigned = false;      // not issued by this CA
    long validFromDays = -1;      // relative to now
    long validToDays = 30;
  };

  TestPki();
  ~TestPki();
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  // The CA certificate (PEM), for SSL_CERT_FILE or a trust store.
  const std::string& CaFile() const { return caFile; }
  // The CA certificate in DER form, for stores that take that.
  const std::string& CaDerFile() const { return caDerFile; }
  // Issues a server certificate; `name` keeps the files apart.
  ServerFiles Issue(const std::string& name, const Options& options);

private:
  struct Keys;
  std::filesystem::path folder;
  std::unique_ptr<Keys> keys;
  std::string caFile;
  std::string caDerFile;
  long serial = 1;
};

} // namespace QOR::test
