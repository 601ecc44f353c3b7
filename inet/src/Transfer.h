// One libcurl easy handle carrying a request. It sets the handle up from a plan, adds it to the
// session's multi handle, and turns libcurl's callbacks into the events of its RequestHandle.
// Used under the session's libcurl lock only.
#pragma once

#include <qorinet/wininet.h>

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace QOR::inet {

class RequestHandle;
class Session;

class Transfer {
public:
  // Everything libcurl needs to know about one request.
  struct Plan {
    std::string url;
    std::string verb;
    bool hasBody = true;       // a Content-Length body from Write (any verb but GET/HEAD without one)
    curl_off_t bodySize = 0;
    std::vector<std::string> headerLines; // in wire order; "Name:" lines keep libcurl's own out
    bool secure = false;
    bool verifyName = true;
    long connectTimeoutMs = 0;
    unsigned long accessType = INTERNET_OPEN_TYPE_PRECONFIG;
    std::string proxy;
    std::string bypass;
  };

  Transfer(Session& session, RequestHandle& request);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // Sets the easy handle up and attaches it; `owner` stays alive while attached.
  bool Start(const Plan& plan, std::shared_ptr<RequestHandle> owner);
  // Lets libcurl go on reading the body (upload) or the reply after one of our callbacks paused it.
  void ResumeUpload();
  // Has libcurl try to send now, as if its socket had turned writable (it copes if not).
  void SendNow();
  // The socket libcurl sends on, or CURL_SOCKET_BAD.
  curl_socket_t Socket() const;
  void ResumeReply();
  // Lets the head, held back since the connection stood, go with the body bytes taken so far.
  void Uncork();
  // Takes the easy handle out of the multi handle; no callback comes after this.
  void Detach();
  // The WinInet error for a failed transfer of this handle.
  DWORD ErrorOf(CURLcode code) const;

private:
  static curl_socket_t OpenSocket(void* user, curlsocktype purpose, curl_sockaddr* address);
  static int RequestReady(void* user, char* primaryIp, char* localIp, int primaryPort, int localPort);
  static CURLcode TlsStarting(CURL* easy, void* tlsContext, void* user);
  static std::size_t ReadBody(char* buffer, std::size_t size, std::size_t count, void* user);
  static std::size_t HeaderLine(char* buffer, std::size_t size, std::size_t count, void* user);
  static std::size_t WriteBody(char* buffer, std::size_t size, std::size_t count, void* user);
  void SetPause(int direction, bool paused);

  Session& session;
  RequestHandle& request;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  bool attached = false;
  bool corksHead = false; // a body follows the head
  curl_socket_t corked = CURL_SOCKET_BAD;
  int pauseMask = CURLPAUSE_CONT;
};

} // namespace QOR::inet
