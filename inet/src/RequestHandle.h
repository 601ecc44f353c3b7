// The handle of HttpOpenRequestA: one HTTP request, streamed both ways.
//
// The entry points run on the caller's thread and change state under the session lock; what
// touches libcurl (the Transfer) runs under the libcurl lock, normally posted to the loop thread,
// which reports progress and completions through the status callback. A write hands its bytes to
// libcurl itself when libcurl is waiting for them: it returns TRUE when libcurl took them all,
// and pends otherwise. Buffers lent by a pending call are touched only under the session lock
// and never after the handle has been closed.
#pragma once

#include "ByteQueue.h"
#include "ConnectHandle.h"
#include "HeaderList.h"
#include "Transfer.h"

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace QOR::inet {

class RequestHandle : public Handle {
public:
  // `accept` is the Accept header's value: the accept types joined by ", " (empty: no header).
  RequestHandle(std::shared_ptr<ConnectHandle> connection, std::string verb, std::string object,
                std::string referrer, std::string accept, DWORD flags, DWORD_PTR context);
  ~RequestHandle() override;

  // Each returns 0 when done at once, ERROR_IO_PENDING when REQUEST_COMPLETE will follow, or
  // the error of a call that failed at once.
  DWORD AddHeaders(std::string_view lines, DWORD modifiers);
  DWORD Send(DWORD total);
  DWORD Write(const void* data, DWORD size, DWORD* written);
  DWORD End();
  DWORD Read(INTERNET_BUFFERSA* buffers);

  // Loop thread: the transfer has finished (CURLE_OK or its failure).
  void TransferDone(CURLcode code);
  // Loop thread: the session is shutting down; forget the transfer without reporting.
  void DropTransfer();

protected:
  bool Busy() const override;
  void CloseDeferred() override;
  void Closed() override;

private:
  friend class Transfer;

  enum class Stage { Fresh, Connecting, Body, Ending, Reply };
  enum class Op { None, Send, Write, End, Read };

  // Lets the loop thread deliver reports of an event that libcurl raised on a caller's thread.
  void OnLoop(void (RequestHandle::*report)());
  // Hands lent bytes to libcurl on the calling thread. 0 when it took them all.
  DWORD DriveUpload();
  enum class HandOverResult { Taken, SocketFull, LoopsBusiness };
  HandOverResult HandOver(curl_socket_t& socket);
  bool Pending(Op which);

  // Posted commands (loop thread).
  void Begin();
  void ResumeUpload();
  void BeginEnd();
  void ResumeReply();
  void ReportFailure();
  void Cancel();
  void Dispose();

  // Events of the transfer (under the libcurl lock, on any thread).
  void SocketOpening(const std::string& address);
  void ReportSocketOpening();
  void Connected();
  void RequestReady();
  std::size_t Upload(char* buffer, std::size_t size);
  void HeaderLine(std::string_view line);
  std::size_t Body(const char* data, std::size_t size);

  void CompleteSend();
  void CompleteEnd();
  void CompleteRead();
  void Fail(DWORD error);
  Transfer::Plan MakePlan();
  void PostSelf(void (RequestHandle::*command)());

  const std::shared_ptr<ConnectHandle> connection;
  const std::string verb;
  const std::string target;
  const DWORD flags;

  // Session lock.
  HeaderList headers;
  Stage stage = Stage::Fresh;
  Op op = Op::None;
  DWORD total = 0;
  std::uint64_t lentTotal = 0;
  DWORD failure = 0;
  bool failureReported = false;
  const char* lentData = nullptr;
  DWORD lentSize = 0;
  DWORD lentTaken = 0;
  DWORD* lentWritten = nullptr;
  INTERNET_BUFFERSA* readBuffers = nullptr;
  char* readData = nullptr;
  DWORD readCapacity = 0;
  DWORD readCount = 0;
  ByteQueue replyBytes;
  bool uploadPaused = false;
  bool uploadByCaller = false;
  bool transferRunning = false;
  bool replyPaused = false;
  bool replyDone = false;
  bool headersDone = false;
  bool sendReported = false;
  bool endReported = false;
  bool receivingReported = false;

  // Under the libcurl lock.
  std::unique_ptr<Transfer> transfer;
  std::string peerAddress;
  bool freshConnection = false;
  bool requestSent = false;
  bool interimResponse = false;
  DWORD statusLineSize = 0;
  DWORD headBytes = 0;
};

} // namespace QOR::inet
