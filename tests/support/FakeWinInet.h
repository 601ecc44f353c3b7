// A scripted WinInet for engine tests: installs its own entry points into the process-wide table
// for its lifetime and answers each call as the test scripts it (at once, with a failure, or
// pending, with the completion coming later from a worker thread through the status callback).
//
// Unscripted calls succeed at once, as WinInet does with data at hand. Handles behave as under
// WinInet: children inherit the status callback when they are made, HANDLE_CREATED comes inside
// the call that makes a handle, HANDLE_CLOSING is a handle's last notification, and calls on a
// closed handle fail (12018 or 6). Every scripted delay is bounded; the destructor delivers what
// is still scheduled, but not calls that hang.
#pragma once

#include <qorxmlu/foundation/Types.h>

#include "http/WinInetTable.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR::test {

// How one scripted call answers.
struct FakeCall {
  enum class Kind { Succeed, Fail, Pend, Hang };
  static constexpr ::DWORD allBytes = 0xFFFFFFFF;

  Kind kind = Kind::Succeed;
  // Fail: the last error. Pend: the error the completion reports (0: success).
  ::DWORD error = 0;
  // Pend: milliseconds until the completion.
  int delayMs = 0;
  // Writes and reads: the bytes reported, at most what was offered or is left of the reply.
  ::DWORD bytes = allBytes;
  // Runs inside the call, before it returns.
  std::function<void()> inside;

  static FakeCall Succeed(::DWORD bytes = allBytes) { return {Kind::Succeed, 0, 0, bytes, {}}; }
  static FakeCall Fail(::DWORD lastError) { return {Kind::Fail, lastError, 0, allBytes, {}}; }
  static FakeCall Pend(int delayMs = 0, ::DWORD completionError = 0) {
    return {Kind::Pend, completionError, delayMs, allBytes, {}};
  }
  // Pends and completes only when its handle is closed (if closes cancel) or at ReleaseHung.
  static FakeCall Hang() { return {Kind::Hang, 0, 0, allBytes, {}}; }
  FakeCall&& Inside(std::function<void()> action) && {
    inside = std::move(action);
    return std::move(*this);
  }
};

class FakeWinInet {
public:
  enum class Api {
    InternetOpenW,
    InternetCloseHandle,
    InternetSetStatusCallbackW,
    HttpOpenRequestA,
    InternetSetOptionW,
    InternetWriteFile,
    InternetReadFileExA,
    HttpEndRequestW,
    InternetConnectW,
    HttpSendRequestExW,
    HttpAddRequestHeadersW,
  };

  // What the fake server saw of one request handle.
  struct Request {
    std::string verb;
    std::string objectName;
    bool versionGiven = false;
    std::string referrer;
    std::vector<std::string> acceptTypes;
    ::DWORD flags = 0;
    DWORD_PTR context = 0;
    std::vector<std::string> headerCalls; // "REPLACE <line>" or "ADD <line>"
    ::DWORD announced = 0;
    std::string body;
    std::vector<::DWORD> writesOffered;
    bool ended = false;
  };

  FakeWinInet();
  ~FakeWinInet();
  FakeWinInet(const FakeWinInet&) = delete;
  FakeWinInet& operator=(const FakeWinInet&) = delete;

  // The next unscripted call of api answers as call says; calls queue up in order.
  void Script(Api api, FakeCall call);

  // The reply body that every request handle reads, from its start.
  void SetReply(std::string bytes);
  // False: a close leaves a hung call running, and HANDLE_CLOSING waits for ReleaseHung (as
  // under Wine). True (the default): the close completes it with 12017 first.
  void SetCloseCancels(bool cancels);

  // Completes every hung call with success (writing into the caller's blocks as WinInet would),
  // then delivers the HANDLE_CLOSING notifications that waited for them.
  void ReleaseHung();
  // Waits until every scheduled notification has been delivered.
  void Drain();

  std::vector<Request> Requests() const;
  // One line per call: the entry point's name and its main arguments (the agent and flags of
  // InternetOpenW; server:port, service, flags and credentials of InternetConnectW).
  std::vector<std::string> Log() const;
  int Count(const std::string& entryPoint) const;
  // Handles that were made and not yet closed, the root handles included.
  int OpenHandles() const;

private:
  struct Handle;
  struct Hung;
  struct Entry;
  friend struct Entry;

  static FakeWinInet* active;

  FakeCall Next(Api api);
  // Takes the script of the call, logs the call as `line` and runs what the script does inside it.
  FakeCall Begin(Api api, std::string line);
  std::uintptr_t NewHandle(int kind, std::uintptr_t parent, DWORD_PTR context);
  Handle* Find(std::uintptr_t handle);
  void Record(std::string line);
  void Schedule(int delayMs, std::function<void()> task);
  void Notify(std::uintptr_t handle, ::DWORD status, DWORD_PTR result, ::DWORD error);
  void Created(std::uintptr_t parent, std::uintptr_t handle);
  void Closing(std::uintptr_t handle);
  void Worker();

  // The entry points.
  static HINTERNET WINAPI InternetOpenW(LPCWSTR agent, ::DWORD accessType, LPCWSTR proxy, LPCWSTR bypass,
                                        ::DWORD flags);
  static BOOL WINAPI InternetCloseHandle(HINTERNET handle);
  static INTERNET_STATUS_CALLBACK WINAPI InternetSetStatusCallbackW(HINTERNET handle,
                                                                    INTERNET_STATUS_CALLBACK callback);
  static HINTERNET WINAPI HttpOpenRequestA(HINTERNET connection, LPCSTR verb, LPCSTR objectName, LPCSTR version,
                                           LPCSTR referrer, LPCSTR* acceptTypes, ::DWORD flags, DWORD_PTR context);
  static BOOL WINAPI InternetSetOptionW(HINTERNET handle, ::DWORD option, LPVOID buffer, ::DWORD length);
  static BOOL WINAPI InternetWriteFile(HINTERNET file, const void* data, ::DWORD size, LPDWORD written);
  static BOOL WINAPI InternetReadFileExA(HINTERNET file, LPINTERNET_BUFFERSA buffers, ::DWORD flags, DWORD_PTR context);
  static BOOL WINAPI HttpEndRequestW(HINTERNET request, LPINTERNET_BUFFERSW buffers, ::DWORD flags, DWORD_PTR context);
  static HINTERNET WINAPI InternetConnectW(HINTERNET root, LPCWSTR server, INTERNET_PORT port, LPCWSTR user,
                                           LPCWSTR password, ::DWORD service, ::DWORD flags, DWORD_PTR context);
  static BOOL WINAPI HttpSendRequestExW(HINTERNET request, LPINTERNET_BUFFERSW in, LPINTERNET_BUFFERSW out,
                                        ::DWORD flags, DWORD_PTR context);
  static BOOL WINAPI HttpAddRequestHeadersW(HINTERNET request, LPCWSTR headers, ::DWORD length, ::DWORD modifiers);

  mutable std::mutex lock;
  std::condition_variable changed;
  std::map<Api, std::vector<FakeCall>> scripts;
  std::map<std::uintptr_t, std::unique_ptr<Handle>> handles;
  std::vector<std::unique_ptr<Hung>> hung;
  std::vector<Request> requests;
  std::vector<std::string> log;
  std::string reply;
  bool closeCancels = true;
  std::uintptr_t nextHandle = 0x100;

  struct Task {
    std::chrono::steady_clock::time_point due;
    std::uint64_t order;
    std::function<void()> run;
  };
  std::vector<Task> tasks;
  std::uint64_t taskOrder = 0;
  int running = 0;
  bool stopping = false;
  std::thread worker;

  WinInetTable saved;
};

} // namespace QOR::test
