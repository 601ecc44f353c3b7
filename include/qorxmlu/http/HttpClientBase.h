// What the request engine sees of its client: the settings, the form of the next request, and
// the two operations it calls back.
//
// A client serves one request at a time and nothing here has a lock. During a request the engine
// and the client's helper threads read the settings; a host changes them only between requests.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>
#include <qorxmlu/foundation/VArray.h>

#include <cstddef>
#include <cstdint>

namespace QOR {

class QORXMLU_API HttpClientBase {
public:
  // Stores the settings; the two time-outs are given in seconds and held in milliseconds.
  HttpClientBase(String agent, String server, bool secure, DWORD connectTimeoutSeconds, DWORD requestTimeoutSeconds);
  HttpClientBase(const HttpClientBase&) = delete;
  HttpClientBase& operator=(const HttpClientBase&) = delete;
  virtual ~HttpClientBase();

  // Empties the form fields and the upload settings.
  virtual void ClearFormFields();
  // Receives the percent figure of a POST with progress, on the progress thread. Does nothing here.
  virtual void ReportProgress(int percent);
  // Receives the body bytes written so far and the body size, on the request's thread.
  virtual void UpdateBytesTransferred(std::size_t transferred, std::size_t total) = 0;
  // Builds the whole request body for the boundary into a new block (array new) that the caller
  // owns. On failure buffer is null and length 0.
  [[nodiscard]] virtual ErrorInfo* GetRequestBuffer(const String& boundary, const char*& buffer, std::size_t& length) = 0;

  // Adds a field to the form of the next request.
  void AddFormField(String name, String value);
  // Sends the file at path with the next request, as the form field param.
  void SetUploadFile(String path, String param);

  // Progress of the next POST. ReportProgress receives 0, then rising figures every
  // progressInterval ms, never ahead of the body bytes written, and 100 before Retrieve goes on to
  // read the reply. How to choose the three:
  // - progressInterval: the milliseconds between two figures, above 0 (say 50 to 250).
  // - progressDuration: the shortest time in ms from 0 to 100, at least progressInterval. The body
  //   goes out in progressDuration / progressInterval chunks, so a fast upload still shows steps.
  // - progressTotal: the body size in bytes (HttpClient::FormBodySize gives it), or more. With
  //   progressTotal equal to the body, 100 comes after about progressDuration;
  //   a larger figure shortens that down to the real transfer time, a smaller one stretches it in
  //   proportion. Non-zero asks for progress; each POST that used it sets it back to 0.
  // A progressTotal below progressDuration / progressInterval + 1 gives no pacing: the figure
  // follows the bytes written. A progressInterval of 0 counts as 1.
  std::uint64_t progressTotal = 0;
  std::int32_t progressDuration = 0;
  std::int32_t progressInterval = 0;
  // The path of the current request: the url prefix followed by the caller's url.
  String requestUrl;
  // The agent name the engine announces.
  String agent;
  // The server: "host", or "host:port" for a port other than 80 or 443.
  String server;
  // HTTPS on port 443 instead of HTTP on port 80.
  bool secure;
  // Milliseconds: the wait for the connection and for a handle to close.
  DWORD connectTimeout;
  // Milliseconds: each wait within a request, and the whole request.
  DWORD requestTimeout;
  // Write chunk without progress; first size and growth step of the text reply buffer.
  DWORD transferBlockSize = 102400;
  // Path of the file to send with the next request; empty for none.
  String uploadFile;
  // Form field name of that file.
  String uploadParam;
  // Names and values of the form fields of the next request, in pairs.
  VArray<String> formNames;
  VArray<String> formValues;
};

} // namespace QOR
