// The certificates of the test servers: files made once by pki/make.sh and committed, with fixed
// dates (the valid ones until 2049): the test CA, and a server certificate and key of each kind.
#pragma once

#include <string>

namespace QOR::test {

class TestPki {
public:
  enum class Kind {
    trusted,   // issued by the test CA for 127.0.0.1
    untrusted, // the same, signed by itself
    expired,   // issued by the test CA, valid in 2020 only
    wronghost, // issued by the test CA for wrong.example.invalid
  };
  struct ServerFiles {
    std::string certificate; // PEM
    std::string key;         // PEM
  };

  // The CA certificate as PEM (for SSL_CERT_FILE) and as DER (for a Windows trust store).
  static std::string CaFile() { return Folder() + "ca.pem"; }
  static std::string CaDerFile() { return Folder() + "ca.der"; }
  static ServerFiles Server(Kind kind) {
    static const char* const names[] = {"trusted", "untrusted", "expired", "wronghost"};
    const std::string name = Folder() + names[static_cast<int>(kind)];
    return {name + ".pem", name + ".key"};
  }

private:
  static std::string Folder() { return QORXMLU_TEST_PKI "/"; }
};

} // namespace QOR::test
