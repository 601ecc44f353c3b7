// The request engine behind HttpClient: drives WinInet in asynchronous mode through one POST at
// a time and turns each call that WinInet reports as pending into a blocking wait, with a
// time-out, on the calling thread.
//
// Threads. The caller of a request runs every operation but CancelRequest and RequestCancelled,
// which any thread may call. WinInet runs StatusCallback on threads of its own or inside a call.
// The process-wide lock "fileHandleSection" guards each engine's request handle and cancelled
// mark; it is held around every call on a request handle and through a whole close of one,
// never across the wait of a step.
//
// Freed memory and late callbacks. WinInet may still call back for a handle after the engine has
// given up on it: under Wine a close does not end a pending call, so a close that times out
// leaves the call running, maybe for minutes. Two records make that safe:
// - The context given to WinInet is the engine's CallbackTarget, a heap record with the three
//   events and the fields that the callback writes, not the engine itself. The target keeps the
//   list of the engine's handles that can still call back: a handle joins it on HANDLE_CREATED
//   or when the engine stores it, and leaves it on HANDLE_CLOSING, which is a handle's last
//   notification. The destructor frees the target only when that list is empty; otherwise the
//   target lives on, detached from the engine, and the callback that brings the last
//   HANDLE_CLOSING frees it. So a callback always finds its target alive, and a new engine
//   never receives an old engine's notifications. The callback does its work under the target's
//   own lock, a leaf lock that no WinInet call is made under.
// - Every block handed to a call that can pend (the body, the stages of a body sent from its
//   file, the reply buffer, the buffer structures and the count of bytes written) lives in a
//   RequestBlocks record. A request handle
//   that received a block holds the record until its HANDLE_CLOSING; the engine holds it until
//   it fetches the next body or is destroyed. A reply buffer that a read may still fill after a
//   failed wait stays in the record instead of being freed.
// A handle that never reports HANDLE_CLOSING keeps its records for the life of the process.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/Event.h>
#include <qorxmlu/foundation/ReadableFile.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/http/HttpClientBase.h>
#include <qorxmlu/http/HttpClientImpInterface.h>

#include "WinInetApi.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace QOR {

// The wait that the engine blocks in: WaitOnEvents, watching briefly before it sleeps. Tests put
// a failing wait in its place.
extern int (*engineWait)(SVArray<Event*, Event*>& events, int milliseconds);

// The block in which an upload file larger than it goes out from the file, read while the block
// before it is being sent; two of them are the memory that such a body takes. Tests make it small.
extern std::size_t uploadBlockSize;

class HttpClientImp final : public HttpClientImpInterface {
public:
  // The multipart boundary of every request, in the body and in the Content-Type line.
  static constexpr const char16_t* boundaryText = u"gc0p4Jq0M2Yt08jU534c0p";

  explicit HttpClientImp(HttpClientBase* owner);
  HttpClientImp(const HttpClientImp&) = delete;
  HttpClientImp& operator=(const HttpClientImp&) = delete;
  // Closes the request, the connection and the session, dropping their errors, and frees the body.
  ~HttpClientImp() override;

  ErrorInfo* Connect() override;
  ErrorInfo* Disconnect() override;
  ErrorInfo* FetchRequestBuffer() override;
  ErrorInfo* SendRequest(String url) override;
  ErrorInfo* ReadBase64Reply(DWORD blockSize, char*& buffer, std::size_t& length) override;
  ErrorInfo* ReadReply(String& reply) override;
  ErrorInfo* CloseRequest() override;
  ErrorInfo* CancelRequest() override;
  bool RequestCancelled() override;

  // The context that this engine's handles carry (its CallbackTarget).
  DWORD_PTR Context() const noexcept;

  // For HttpClient's own GetRequestBuffer, while FetchRequestBuffer calls it: true when an upload
  // file of fileSize bytes should be left to the send. Then SendFromFile hands it over, with head,
  // the block that GetRequestBuffer returns (the body up to the file's bytes), and closing, the
  // body behind them. A derived GetRequestBuffer that returns another block fails the request.
  bool TakesUploadFile(std::uint64_t fileSize) const noexcept;
  void SendFromFile(const char* head, std::size_t headSize, std::unique_ptr<ReadableFile> file,
                    std::uint64_t fileSize, std::string closing);

  // WinInet's status callback; the context is a CallbackTarget.
  static void CALLBACK StatusCallback(HINTERNET handle, DWORD_PTR context, ::DWORD status, LPVOID info,
                                      ::DWORD infoLength);

private:
  class CallbackTarget;
  struct RequestBlocks;
  enum class Step { Connect, OpenRequest, SendRequestHeaders, WriteRequestData, EndRequest, ReadReply };

  ErrorInfo* OpenRequest(const String& url);
  ErrorInfo* SendRequestHeaders();
  ErrorInfo* WriteRequestData();
  ErrorInfo* FillStage(int stage, std::uint64_t from, std::size_t& filled);
  ErrorInfo* AbandonBody(ErrorInfo* error);
  ErrorInfo* EndRequest();
  ErrorInfo* ReadToEnd(DWORD blockSize, std::size_t spare, bool examineAfterFailedWait, std::size_t& total);
  ErrorInfo* CloseInternetHandle(HINTERNET& handle, const char16_t* name);
  ErrorInfo* AwaitCompletion(Step step, ::DWORD code, bool examineAfterFailedWait = false,
                             bool* stillPending = nullptr);
  ErrorInfo* FailConnect(ErrorInfo* error);
  int WaitFor(Event& event, DWORD milliseconds);
  // The record of the current request; a fresh one if there is none.
  RequestBlocks& Blocks();
  void RenewBlocks();
  // Lets the request handle hold the current record; call under the lock with the handle stored.
  void LendBlocks();

  HttpClientBase* owner;
  HINTERNET internetHandle = nullptr;
  HINTERNET httpHandle = nullptr;
  HINTERNET fileHandle = nullptr; // under fileHandleSection
  CallbackTarget* target;
  bool callbackInstalled = false;
  bool cancelled = false; // under fileHandleSection
  RequestBlocks* blocks = nullptr;
  String boundary;
  // The upload file of a body sent from its file, open from FetchRequestBuffer to the end of the send.
  std::unique_ptr<ReadableFile> uploadFile;
  const char* uploadHead = nullptr;
  std::size_t uploadHeadSize = 0;
  bool offeringUpload = false;
};

} // namespace QOR
