#include "Transfer.h"

#include "CurlErrors.h"
#include "RequestHandle.h"
#include "Session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>

namespace QOR::inet {

namespace {

// Reply bytes libcurl hands over per callback, and the upload buffer it fills from lent data.
constexpr long receiveBufferSize = 256 * 1024;
constexpr long uploadBufferSize = 256 * 1024;

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  } else if (address->sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
  }
  return text;
}

RequestHandle& Owner(void* user) { return *static_cast<RequestHandle*>(user); }

void SetProxy(CURL* easy, const Transfer::Plan& plan) {
  if (plan.accessType == INTERNET_OPEN_TYPE_DIRECT) {
    curl_easy_setopt(easy, CURLOPT_PROXY, ""); // no proxy, whatever the environment says
  } else if (plan.accessType == INTERNET_OPEN_TYPE_PROXY) {
    curl_easy_setopt(easy, CURLOPT_PROXY, plan.proxy.c_str());
    if (!plan.bypass.empty()) curl_easy_setopt(easy, CURLOPT_NOPROXY, plan.bypass.c_str());
  }
}

void SetTls(CURL* easy, const Transfer::Plan& plan) {
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, plan.verifyName ? 2L : 0L);
  // OpenSSL's own variables, which libcurl's compiled-in CA paths would otherwise override.
  if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file) curl_easy_setopt(easy, CURLOPT_CAINFO, file);
  if (const char* folder = std::getenv("SSL_CERT_DIR"); folder && *folder)
    curl_easy_setopt(easy, CURLOPT_CAPATH, folder);
}

} // namespace

Transfer::Transfer(Session& session, RequestHandle& request) : session(session), request(request) {}

Transfer::~Transfer() {
  Detach();
  session.GiveBackEasy(easy);
  curl_slist_free_all(headerList);
}

bool Transfer::Start(const Plan& plan, std::shared_ptr<RequestHandle> owner) {
  easy = session.TakeEasy();
  if (!easy) return false;
  for (const std::string& line : plan.headerLines) {
    curl_slist* extended = curl_slist_append(headerList, line.c_str());
    if (!extended) return false;
    headerList = extended;
  }
  void* user = &request;
  curl_easy_setopt(easy, CURLOPT_URL, plan.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList);
  if (plan.verb == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (!plan.hasBody) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, plan.bodySize);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &Transfer::ReadBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, user);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, uploadBufferSize);
  }
  if (plan.verb != "POST" && plan.verb != "GET" && plan.verb != "HEAD")
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, plan.verb.c_str());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::HeaderLine);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, user);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::WriteBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, user);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, receiveBufferSize);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &Transfer::OpenSocket);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &Session::CloseSocket);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, &session);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Transfer::RequestReady);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, user);
  if (plan.connectTimeoutMs > 0) curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, plan.connectTimeoutMs);
  SetProxy(easy, plan);
  if (plan.secure) {
    SetTls(easy, plan);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &Transfer::TlsStarting);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, user);
  }
  corksHead = plan.hasBody && plan.bodySize > 0;
  attached = session.Attach(easy, std::move(owner));
  return attached;
}

void Transfer::ResumeUpload() { SetPause(CURLPAUSE_SEND, false); }

void Transfer::ResumeReply() { SetPause(CURLPAUSE_RECV, false); }

curl_socket_t Transfer::Socket() const {
  curl_socket_t socket = CURL_SOCKET_BAD;
  if (!attached || curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &socket) != CURLE_OK) return CURL_SOCKET_BAD;
  return socket;
}

void Transfer::SendNow() {
  curl_socket_t socket = Socket();
  if (socket != CURL_SOCKET_BAD) session.Act(socket, CURL_CSELECT_OUT);
}

void Transfer::SetPause(int direction, bool paused) {
  int mask = paused ? (pauseMask | direction) : (pauseMask & ~direction);
  if (mask == pauseMask) return;
  pauseMask = mask;
  // Unpausing the reply may hand over held-back data at once, through WriteBody.
  if (attached) curl_easy_pause(easy, pauseMask);
}

void Transfer::Uncork() {
  if (corked == CURL_SOCKET_BAD) return;
  session.Uncork(corked);
  corked = CURL_SOCKET_BAD;
}

void Transfer::Detach() {
  Uncork();
  if (!attached) return;
  attached = false;
  session.Detach(easy);
}

DWORD Transfer::ErrorOf(CURLcode code) const {
  long verifyResult = 0;
  if (easy) curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verifyResult);
  return WinInetErrorOf(code, verifyResult);
}

curl_socket_t Transfer::OpenSocket(void* user, curlsocktype purpose, curl_sockaddr* address) {
  if (purpose != CURLSOCKTYPE_IPCXN) return CURL_SOCKET_BAD;
  curl_socket_t socket = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (socket == CURL_SOCKET_BAD) return socket;
  auto& self = *static_cast<Transfer*>(user);
  self.session.SocketOpened(socket);
  self.request.SocketOpening(AddressText(&address->addr));
  return socket;
}

int Transfer::RequestReady(void* user, char*, char*, int peerPort, int localPort) {
  RequestHandle& owner = Owner(user);
  Transfer& self = *owner.transfer;
  self.session.ConnectionReady(self.easy);
  // The head would otherwise leave alone, and the body a moment later in a packet of its own.
  self.Uncork();
  if (self.corksHead) self.corked = self.session.Cork(localPort, peerPort);
  owner.RequestReady();
  return CURL_PREREQFUNC_OK;
}

CURLcode Transfer::TlsStarting(CURL*, void*, void* user) {
  // libcurl sets TLS up once the TCP connection stands, just before the handshake.
  Owner(user).Connected();
  return CURLE_OK;
}

std::size_t Transfer::ReadBody(char* buffer, std::size_t size, std::size_t count, void* user) {
  RequestHandle& owner = Owner(user);
  std::size_t taken = owner.Upload(buffer, size * count);
  if (taken == CURL_READFUNC_PAUSE) owner.transfer->pauseMask |= CURLPAUSE_SEND;
  return taken;
}

std::size_t Transfer::HeaderLine(char* buffer, std::size_t size, std::size_t count, void* user) {
  Owner(user).HeaderLine(std::string_view(buffer, size * count));
  return size * count;
}

std::size_t Transfer::WriteBody(char* buffer, std::size_t size, std::size_t count, void* user) {
  RequestHandle& owner = Owner(user);
  std::size_t taken = owner.Body(buffer, size * count);
  if (taken == CURL_WRITEFUNC_PAUSE) owner.transfer->pauseMask |= CURLPAUSE_RECV;
  return taken;
}

} // namespace QOR::inet
