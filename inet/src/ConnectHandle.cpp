#include "ConnectHandle.h"

#include "Text.h"

namespace QOR::inet {

namespace {

bool ParsePort(std::u16string_view text, unsigned& port) {
  unsigned value = 0;
  for (char16_t unit : text) {
    if (unit < u'0' || unit > u'9' || value > 65535) return false;
    value = value * 10 + (unit - u'0');
  }
  if (text.empty() || value == 0 || value > 65535) return false;
  port = value;
  return true;
}

} // namespace

bool ConnectHandle::ParseServer(std::u16string_view text, std::u16string& host, unsigned& port) {
  if (!text.empty() && text.front() == u'[') {
    std::size_t close = text.find(u']');
    if (close == std::u16string_view::npos || close == 1) return false;
    host.assign(text.substr(1, close - 1));
    std::u16string_view rest = text.substr(close + 1);
    if (rest.empty()) return true;
    return rest.front() == u':' && ParsePort(rest.substr(1), port);
  }
  std::size_t colon = text.find(u':');
  // More than one colon and no brackets: a bare IPv6 address, which has no port.
  if (colon != std::u16string_view::npos && text.find(u':', colon + 1) == std::u16string_view::npos) {
    host.assign(text.substr(0, colon));
    if (host.empty()) return false;
    return ParsePort(text.substr(colon + 1), port);
  }
  host.assign(text);
  return !host.empty();
}

ConnectHandle::ConnectHandle(std::shared_ptr<Handle> root, std::u16string host, unsigned port, DWORD_PTR context)
    : Handle(Kind::Connect, std::move(root), context), hostName(std::move(host)),
      host(Utf8FromUtf16(hostName.data(), hostName.size())), port(port) {}

std::string ConnectHandle::UrlHost() const {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

unsigned ConnectHandle::PortFor(bool secure) const {
  if (port != INTERNET_INVALID_PORT_NUMBER) return port;
  return secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT;
}

std::string ConnectHandle::HostHeader(bool secure) const {
  unsigned actual = PortFor(secure);
  unsigned standard = secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT;
  return actual == standard ? UrlHost() : UrlHost() + ":" + std::to_string(actual);
}

} // namespace QOR::inet
