// What HttpClient sees of its request engine.
//
// One request at a time runs through these operations on its caller's thread, in this order:
// Connect (when not connected), FetchRequestBuffer, SendRequest, ReadReply or ReadBase64Reply,
// CloseRequest; after an error Disconnect. Only CancelRequest and RequestCancelled may come from
// other threads. Every ErrorInfo* is null on success and belongs to the caller otherwise.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>

#include <cstddef>

namespace QOR {

class HttpClientBase;

class QORXMLU_API HttpClientImpInterface {
public:
  // Closes whatever handles are still open; errors of that are dropped.
  // Defined in the library, so that the class has its one vtable there.
  virtual ~HttpClientImpInterface();

  // Opens the session and the connection to the owner's server.
  [[nodiscard]] virtual ErrorInfo* Connect() = 0;
  // Closes the request, the connection and the session, and joins their errors.
  [[nodiscard]] virtual ErrorInfo* Disconnect() = 0;
  // Has the owner build the request body, after freeing the previous one.
  [[nodiscard]] virtual ErrorInfo* FetchRequestBuffer() = 0;
  // Posts the body to url (a path on the server): open, headers, body, end.
  [[nodiscard]] virtual ErrorInfo* SendRequest(String url) = 0;
  // Reads the reply as Base64 text, first in blockSize bytes and growing by as many, and gives
  // the decoded bytes in a new block (array new) that the caller owns.
  [[nodiscard]] virtual ErrorInfo* ReadBase64Reply(DWORD blockSize, char*& buffer, std::size_t& length) = 0;
  // Reads the reply as UTF-8 text into reply; reply is untouched on failure.
  [[nodiscard]] virtual ErrorInfo* ReadReply(String& reply) = 0;
  // Closes the request handle and waits until it is closed.
  [[nodiscard]] virtual ErrorInfo* CloseRequest() = 0;
  // Marks the request cancelled and closes its handle; for any thread.
  [[nodiscard]] virtual ErrorInfo* CancelRequest() = 0;
  // True after CancelRequest, until the next Connect or SendRequest; for any thread.
  virtual bool RequestCancelled() = 0;
};

// A new engine for owner, which the caller deletes.
QORXMLU_API HttpClientImpInterface* CreateHttpClientImp(HttpClientBase* owner);

} // namespace QOR
