// The loopback servers of the end-to-end tests, by role:
//   plain      HTTP, keep-alive: /bytes/<n>, /status/<n>, /discard (common routes), and
//              /mirror (the request line, headers and body back), /text/<n> (n digits with a
//              Content-Length), /base64/<n> (n pattern bytes
//              in Base64), /utf8 (non-ASCII text), /port (the client's TCP port)
//   secure     HTTPS with a certificate for 127.0.0.1 from the test CA
//   untrusted  HTTPS with a self-signed certificate
//   refused    nothing listens
//   stalled    reads the request and says nothing for 30 s
//   stall2s    reads the request, says nothing for 2 s and closes
//   blackhole  a port whose connects are never answered
//   sink       reads the request head and nothing of the body, for 30 s
//   stallbody  headers for 100 000 bytes and 1 000 of them, then nothing for 30 s
//   trickle    200 with 60 bytes, 10 at a time, 100 ms apart
//   reset      headers for 100 000 bytes and 1 000 of them, then a reset
// and for the fault matrix, each answering POST /doc with a reply document of a query:
//   expired    HTTPS, certificate from the test CA that ran out 30 days ago
//   wronghost  HTTPS, certificate from the test CA for another host name
//   slowhead   the status line and headers 8 bytes at a time, 15 ms apart, then the document
//   slowbody   the headers, then the document 8 bytes at a time, 15 ms apart
//   resethead  half a status line, then a reset
//   shortbody  Content-Length 1 000 bytes beyond the document, the document, then a close
//   garbage    a line that is no HTTP, then a close
// (plain, secure and untrusted answer /doc too).
//
// Natively the test program starts them itself. Under Wine, where no server library exists, the
// native http_net_host starts them and hands their addresses to the Windows test program in the
// environment variable QORXMLU_NET_SERVERS.
#pragma once

#include <map>
#include <memory>
#include <string>

namespace QOR::test {

struct NetServers {
  // role -> "127.0.0.1:<port>" (or a host name that doesn't resolve, for "unresolved")
  std::map<std::string, std::string> address;
  // The test CA, PEM and DER.
  std::string caFile;
  std::string caDerFile;

  const std::string& operator[](const std::string& role) const;
  // "role=address;...;ca=<file>;cader=<file>"
  std::string Encode() const;
  static NetServers Decode(const std::string& text);
};

// Whatever keeps the servers running.
class NetServerSet {
public:
  virtual ~NetServerSet() = default;
  virtual const NetServers& Servers() const = 0;
};

// Starts every server (native builds only; elsewhere null).
std::unique_ptr<NetServerSet> StartNetServers();

// The servers of this test run: from QORXMLU_NET_SERVERS if set, otherwise started here.
const NetServers& TheNetServers();

// True in a Windows program run by Wine.
bool RunningUnderWine();

// Makes the HTTP stack of this process trust the test CA.
bool TrustTestCa(const NetServers& servers);

} // namespace QOR::test
