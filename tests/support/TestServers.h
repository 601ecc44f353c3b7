// The loopback servers of the test programs, one set of them by role, started together:
//   plain      HTTP, keep-alive: the common routes of LoopbackServer, and /mirror (the request
//              line, headers and body back), /text/<n> (n digits), /base64/<n> (n pattern bytes
//              in Base64, see PatternBytes), /utf8 (non-ASCII text)
//   secure, untrusted, expired, wronghost, wronghost2
//              HTTPS with a certificate for 127.0.0.1 from the test CA, a self-signed one, an
//              expired one, and two for another host name (Wine caches names per process, so a
//              second verdict on the name needs a server of its own)
//   soap       the fake web service of the query and trace tests (SoapService.h)
//   refused    nothing listens                 unresolved  a name that does not resolve
// Misbehaving ones, on raw sockets (hold: the time given to StartServers):
//   answer, handles  200 with 120 bytes to every request, keep-alive
//   sink       200 "ok"                        big    200 with 1 MiB    empty  200, no body
//   trickle    200 with 1 MiB in 64 KiB pieces, 20 ms apart
//   missing    404 "no such page here\n"
//   stale      answers, then drops the kept-alive connection after 0.1 s
//   cut        announces 10 000 bytes, sends 4 000, closes after 0.2 s
//   silent     reads the request and closes without a word
//   stall      reads the request, says nothing for hold, then closes   stall2s  the same for 2 s
//   stallbody  headers for 100 000 bytes and 1 000 of them, nothing for hold, then a close
//   reset      headers for 100 000 bytes and 1 000 of them, then a reset
// and for the fault matrix, each answering with a reply document of a query:
//   slowhead   the status line and headers 8 bytes at a time, 15 ms apart, then the document
//   slowbody   the headers, then the document 8 bytes at a time, 15 ms apart
//   resethead  half a status line, then a reset
//   shortbody  Content-Length 1 000 bytes beyond the document, the document, then a close
//   garbage    a line that is no HTTP, then a close
// (the HTTPS servers and plain answer POST /doc with that document too).
//
// Natively a test program starts them itself. Under Wine, where no server library exists, the
// native qorxmlu_test_host starts them and hands their addresses to the Windows program in the
// environment variable QORXMLU_TEST_SERVERS.
#pragma once

#include <map>
#include <memory>
#include <string>

namespace QOR::test {

class RawServer;

struct ServerAddresses {
  // role -> "127.0.0.1:<port>"
  std::map<std::string, std::string> address;
  // The test CA, PEM and DER.
  std::string caFile;
  std::string caDerFile;

  const std::string& operator[](const std::string& role) const;
  // "role=address;...;ca=<file>;cader=<file>"
  std::string Encode() const;
  static ServerAddresses Decode(const std::string& text);
};

class ServerSet {
public:
  virtual ~ServerSet() = default;
  virtual const ServerAddresses& Addresses() const = 0;
  // The raw server of a role, for what it saw.
  virtual const RawServer& Raw(const std::string& role) const = 0;
};

// Starts every server (native builds only; elsewhere null).
std::unique_ptr<ServerSet> StartServers(int holdMs = 30000);

// The servers of this test run: from QORXMLU_TEST_SERVERS if set, otherwise started here.
const ServerAddresses& TheServers();

// True in a Windows program run by Wine.
bool RunningOnWine();

// Makes the HTTP stack of this process trust the test CA (SSL_CERT_FILE for libqorinet, the
// root store for WinInet), and takes that trust back.
bool TrustTestCa(const ServerAddresses& servers);
void ForgetTestCa();

// `count` bytes of a fixed pattern, every byte value among them.
inline std::string PatternBytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xFF);
  return bytes;
}

} // namespace QOR::test
