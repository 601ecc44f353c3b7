// What the subcommands share: text conversions, error texts, the HTTP session and a client that
// draws its progress on the terminal.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/http/HttpClient.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qorxml {

// The library's text from UTF-8, and back.
QOR::String Text(const std::string& utf8);
std::string Utf8(const QOR::String& text);

// Every text of the chain joined by "; ", and the chain deleted; empty for null.
std::string TakeErrorText(QOR::ErrorInfo* error);

// Splits "name=value" at its first '='; false if there is none.
bool SplitField(const std::string& field, std::string& name, std::string& value);

// True when stderr is a terminal, where a progress bar can be redrawn in place.
bool StderrIsTerminal();
// Makes stdout pass bytes through unchanged (no line-end translation).
void SetBinaryStdout();
// Writes bytes to stdout as they are and flushes.
void WriteStdout(const std::string& bytes);

// WinInet loaded for the life of the object, as every request needs.
class HttpSession {
public:
  HttpSession();
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  // Empty when WinInet is loaded, else why it is not.
  const std::string& Error() const { return error; }

private:
  std::string error;
};

// A client that hands each progress figure of a POST to a callback, on the library's progress
// thread.
class ProgressClient : public QOR::HttpClient {
public:
  using QOR::HttpClient::HttpClient;

  // Asks for progress figures on the next POST, paced by the body of the form as it stands: call
  // it after the fields and the file are set.
  void WatchNextPost(std::function<void(int)> onPercent);
  void ReportProgress(int percent) override;

private:
  std::function<void(int)> onPercent;
};

// A progress bar on stderr, redrawn in place: "[#####     ]  50%", ended by a line end at 100.
void DrawProgressBar(int percent);

// The client the commands use for one server ("host" or "host:port").
std::unique_ptr<ProgressClient> MakeClient(const std::string& server, bool secure, unsigned connectTimeoutSeconds,
                                           unsigned requestTimeoutSeconds);

} // namespace qorxml
