// The handle of InternetConnectW: one web server, named as "host", "host:port",
// "[v6-address]" or "[v6-address]:port". Makes no lookup and no connection by itself.
#pragma once

#include "Handle.h"

#include <string>
#include <string_view>

namespace QOR::inet {

class ConnectHandle : public Handle {
public:
  // Splits the server name. False if it names no host or carries a port that is no number.
  static bool ParseServer(std::u16string_view server, std::u16string& host, unsigned& port);

  ConnectHandle(std::shared_ptr<Handle> root, std::u16string host, unsigned port, DWORD_PTR context);

  // The host as a URL writes it (IPv6 addresses in brackets).
  std::string UrlHost() const;
  // The port for a request: the one given, or the scheme's default.
  unsigned PortFor(bool secure) const;
  // The Host header value: the host, with the port unless it is the scheme's default.
  std::string HostHeader(bool secure) const;
  // The host name in UTF-16, for RESOLVING_NAME.
  const std::u16string& HostName() const { return hostName; }

  // Loop thread only: whether a request of this handle has resolved the name before.
  bool resolved = false;

private:
  const std::u16string hostName;
  const std::string host;
  const unsigned port;
};

} // namespace QOR::inet
