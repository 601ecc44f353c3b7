// Drives the WinInet API the way the HTTP engine does (asynchronous mode, one status callback,
// the driver's address as context) and records every call and every callback. Built against
// libqorinet on Linux and against wininet.dll on Windows, so the two can be compared.
//
// Trace lines, one per call and one per callback:
//   InternetConnectW -> conn              a call and its result (pending: "-> pending")
//     C 60 conn                           a callback: C on the calling thread inside a call,
//     W 100 (1,0)                         W on another thread; then the status and its payload
// Handles are named by role (root, conn, req), as the values themselves differ between runs.
//
// Threads: one thread drives; any thread may close. Callbacks come from anywhere.
#pragma once

#include "WinInetApi.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR::inettest {

// The request flags of the engine, plain and secure.
constexpr DWORD engineFlags = 0x84400000;
constexpr DWORD engineSecureFlags = 0x84C01000;
// The engine's write chunk and read growth step.
constexpr DWORD blockSize = 102400;

class InetDriver {
public:
  // What one call came to.
  struct Result {
    bool ok = false;        // TRUE (or a handle), or completed with dwResult != 0
    bool pending = false;   // returned FALSE with ERROR_IO_PENDING
    bool completed = false; // pending, and REQUEST_COMPLETE came within the wait
    DWORD error = 0;        // GetLastError of a failed call, or dwError of the completion
    DWORD bytes = 0;        // bytes written or read
  };
  // One callback as it came.
  struct Note {
    HINTERNET handle;
    DWORD status;
    DWORD value; // the DWORD of 31 and 41
    std::chrono::steady_clock::time_point when;
  };

  InetDriver() = default;
  // Closes whatever is still open.
  ~InetDriver();
  InetDriver(const InetDriver&) = delete;
  InetDriver& operator=(const InetDriver&) = delete;

  // How long a pending call and a close may take before the driver gives up on it.
  void SetWaits(std::chrono::milliseconds completion, std::chrono::milliseconds closing);

  // The root, by default with the system's proxy settings.
  bool Open(DWORD access = INTERNET_OPEN_TYPE_PRECONFIG, const std::string& proxy = "");
  bool Connect(const std::string& server, INTERNET_PORT port = 80);
  bool OpenRequest(const std::string& object, DWORD flags = engineFlags);
  // The engine's Content-Type line: REPLACE, then ADD if the header was not found.
  Result AddContentType();
  Result AddHeader(const std::string& line, DWORD modifiers);
  // With wait false a pending call is left running; Wait() or a close ends it.
  // How the send's buffers block looks: the total only, no block at all, or a buffer pointer with
  // length 0 besides the total.
  enum class Block { Total, None, EmptyBuffer };
  Result SendEx(DWORD total, bool wait = true, Block form = Block::Total);
  Result Write(const char* data, DWORD size, bool wait = true);
  // The body in engine-sized chunks; stops at the first failure.
  Result WriteAll(const std::string& body);
  Result End(bool wait = true);
  Result Read(char* buffer, DWORD capacity, bool wait = true);
  // Reads to the end the way the engine does: a buffer growing by a block. Stops at a failure.
  Result ReadAll(std::string& body);
  // Waits for the completion of the call left pending last.
  Result Wait();

  // InternetCloseHandle, then a wait for that handle's HANDLE_CLOSING. The handle is forgotten.
  Result CloseRequest();
  Result CloseConnection();
  // Closes whatever is still open as the engine's Disconnect does: request first, the root last
  // with its callback unset.
  void CloseAll();
  // Only the call, for closing from another thread: no wait, the handle stays known.
  Result CloseHandleOnly(HINTERNET handle);
  // Waits for HANDLE_CLOSING of `handle` after `since` closings of it have been seen.
  bool WaitClosing(HINTERNET handle, int since, std::chrono::milliseconds time);
  int ClosingsOf(HINTERNET handle) const;

  // The engine's exchange on the open request: header, send, write, end (even after a failed
  // send or write), read. The first failure, or an end that never came back.
  Result Exchange(const std::string& body, std::string& reply);
  // One whole engine POST on the open connection: open, exchange, close.
  Result Post(const std::string& object, const std::string& body, std::string& reply, DWORD flags = engineFlags);

  HINTERNET Root() const { return root; }
  HINTERNET Connection() const { return connection; }
  HINTERNET Request() const { return request; }
  std::vector<std::string> Trace() const;
  std::vector<Note> Notes() const;
  // A callback came for a handle after its HANDLE_CLOSING, or a second HANDLE_CLOSING.
  bool CallbackAfterClosing() const;

private:
  static void CALLBACK StatusCallback(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info,
                                      DWORD length);
  void OnStatus(HINTERNET handle, DWORD status, LPVOID info, DWORD length);
  // One call that may pend, and one that makes a handle of `role`, traced as `text`.
  template <class Entry> Result Call(const std::string& text, bool wait, const DWORD* bytes, Entry entry);
  template <class Entry> HINTERNET Create(const std::string& text, const char* role, Entry entry);
  // The trace line of a call begins; `role` names the handle a create call makes.
  std::size_t BeginCall(const std::string& text, const char* role = nullptr);
  void EndCall(std::size_t index, const std::string& outcome);
  Result Finish(std::size_t index, BOOL ok, bool wait, const DWORD* bytes);
  Result CloseAndForget(HINTERNET& handle);
  std::string NameOf(HINTERNET handle) const;

  std::chrono::milliseconds completionWait{20000};
  std::chrono::milliseconds closingWait{5000};
  HINTERNET root = nullptr;
  HINTERNET connection = nullptr;
  HINTERNET request = nullptr;
  DWORD written = 0;
  INTERNET_BUFFERSA readBlock{};
  std::size_t pendingMark = 0; // completions before the call left pending last
  std::string creating;        // role of the handle a running create call makes

  mutable std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> lines; // the trace
  std::vector<Note> notes;
  std::vector<INTERNET_ASYNC_RESULT> completions;
  std::map<HINTERNET, std::string> names;
  std::map<HINTERNET, int> closings;
  std::map<HINTERNET, bool> dead;
  bool lateCallback = false;
};

} // namespace QOR::inettest
