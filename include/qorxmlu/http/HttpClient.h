// The client for one web server: posts a multipart form, with an optional file, and returns the
// whole reply as text or as Base64-decoded bytes.
//
// Every request is a POST and runs on the caller's thread, which blocks until the reply is in or
// the request has failed. The whole request is limited to requestTimeout by a watchdog thread;
// a POST with progressTotal set reports percent figures through ReportProgress on a thread of its
// own. A client serves one request at a time. CancelRequest, RequestCancelled and
// GetBytesTransferred may be called from any thread while a request runs.
//
// The connection stays open between requests and is dropped after any failure; the next request
// connects anew. Destroying the client closes it. Callbacks that WinInet still delivers for a
// handle whose close timed out never reach freed memory (see HttpClientImp).
//
// InitialiseHttp must have succeeded before the first request of any client, and TerminateHttp
// comes after the last client is gone.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/CritSection.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>
#include <qorxmlu/http/HttpClientBase.h>

#include <cstddef>
#include <cstdint>

namespace QOR {

class HttpClientImpInterface;

class QORXMLU_API HttpClient : public HttpClientBase {
public:
  // A client for server ("host" or "host:port") over HTTP, or HTTPS if secure. No network work
  // happens until the first request.
  HttpClient(String agent, String server, bool secure, DWORD connectTimeoutSeconds, DWORD requestTimeoutSeconds);
  // Closes the connection; no request may be running.
  ~HttpClient() override;

  // Stores the progress counters that GetBytesTransferred reads.
  void UpdateBytesTransferred(std::size_t transferred, std::size_t total) override;
  // Builds the multipart body of the form and the upload file, and empties the form. Called by
  // the request, it leaves an upload file larger than a block to the send, which reads it from
  // the file block by block: the block then holds the body up to the file's bytes. A derived
  // GetRequestBuffer that calls this one returns that block unchanged, or the request fails.
  [[nodiscard]] ErrorInfo* GetRequestBuffer(const String& boundary, const char*& buffer, std::size_t& length) override;

  // The size in bytes of the body that the next request posts with the form and the upload file
  // as they stand now: the figure for progressTotal. 0 if the upload file cannot be opened.
  std::uint64_t FormBodySize() const;

  // Posts the form to url (behind the url prefix) and puts the reply, decoded from UTF-8, into
  // reply. On failure reply is untouched.
  [[nodiscard]] virtual ErrorInfo* Retrieve(String url, String& reply);
  // Posts the form to url and decodes the reply as Base64 into a new block (array new, owned by
  // the caller). blockSize is the first reply buffer and its growth step; 0 reads the reply as
  // text and drops it. On failure buffer and length are untouched.
  [[nodiscard]] virtual ErrorInfo* RetrieveBase64(DWORD blockSize, String url, char*& buffer, std::size_t& length);
  // Cancels the running request from another thread: marks it cancelled and closes its handle.
  [[nodiscard]] virtual ErrorInfo* CancelRequest();
  // True after a cancellation, or after a failed request, until the next request starts.
  virtual bool RequestCancelled();

  // Loads WinInet (libqorinet on Linux) for all clients of the process.
  [[nodiscard]] static ErrorInfo* InitialiseHttp();
  // Unloads WinInet; always null. Does nothing if it is not loaded.
  [[nodiscard]] static ErrorInfo* TerminateHttp();

  // Replaces the text put before every url (it does not append).
  void AddUrlPrefix(String prefix);
  // The text put before every url.
  String UrlPrefix();

  // The body bytes written so far by the last POST with progress; total receives its body size.
  std::size_t GetBytesTransferred(std::size_t& total);

private:
  // One piece of the body being built; data is owned until ReleaseSegments.
  struct RequestSegment {
    std::uint64_t length;
    char* data;
  };

  [[nodiscard]] ErrorInfo* DoRetrieve(String& reply, DWORD blockSize, String url, char*& buffer, std::size_t& length);
  [[nodiscard]] ErrorInfo* SendPost(String url);
  [[nodiscard]] ErrorInfo* EnsureConnected();
  [[nodiscard]] ErrorInfo* DropConnection();
  void AddTextSegment(String text);
  void ReleaseSegments();

  SVArray<RequestSegment> segments;
  HttpClientImpInterface* imp;
  String urlPrefix;
  bool connected = false;
  std::uint64_t bytesTransferred = 0;
  std::uint64_t bytesTotal = 0;
  CritSection bytesLock;
};

} // namespace QOR
