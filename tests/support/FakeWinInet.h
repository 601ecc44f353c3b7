// A scripted WinInet for engine tests: installs its own entry points into the process-wide table
// for its lifetime and answers each call as the test scripts it (at once, with a failure, or
// pending, with the completion coming later from another thread through the status callback).
//
// Unscripted calls succeed at once, as WinInet does with data at hand. Handles behave as under
// WinInet: children inherit the status callback when they are made, HANDLE_CREATED comes inside
// the call that makes a handle, HANDLE_CLOSING is a handle's last notification, and calls on a
// closed handle fail (12018 or 6). Every scripted delay is bounded; the destructor delivers what
// is still scheduled, but not calls that hang.
#pragma once

#include <qorxmlu/foundation/Types.h>

#include "http/WinInetTable.h"

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
  // Fail: the last error. Pend and Hang: the error the completion reports (0: success).
  ::DWORD error = 0;
  // Pend: milliseconds until the completion.
  int delayMs = 0;
  // Writes and reads: the bytes reported, at most what was offered or is left of the reply.
  ::DWORD bytes = allBytes;
  // Runs inside the call, before it returns.
  std::function<void()> inside;

  static FakeCall Succeed(::DWORD bytes = allBytes) { return {Kind::Succeed, 0, 0, bytes, {}}; }
  static FakeCall Fail(::DWORD lastError) { return {Kind::Fail, lastError, 0, allBytes, {}}; }
  static FakeCall Pend(int delayMs = 0, ::DWORD completionError = 0, ::DWORD bytes = allBytes) {
    return {Kind::Pend, completionError, delayMs, bytes, {}};
  }
  // Pends and completes only when its handle is closed (if closes cancel) or at ReleaseHung,
  // there with completionError.
  static FakeCall Hang(::DWORD completionError = 0) { return {Kind::Hang, completionError, 0, allBytes, {}}; }
  FakeCall&& Inside(std::function<void()> action) && {
    inside = std::move(action);
    return std::move(*this);
  }
};

class FakeWinInet {
public:
  // What the fake server saw of one request handle.
  struct Request {
    ::DWORD announced = 0;
    std::string body;
    std::vector<::DWORD> writesOffered;
  };

  // closeCancels false: a close leaves a hung call running, and HANDLE_CLOSING waits for
  // ReleaseHung (as under Wine). True: the close completes it with 12017 first.
  explicit FakeWinInet(bool closeCancels = true);
  ~FakeWinInet();
  FakeWinInet(const FakeWinInet&) = delete;
  FakeWinInet& operator=(const FakeWinInet&) = delete;

  // The next unscripted call of the entry point ("InternetWriteFile") answers as call says;
  // calls queue up in order.
  void Script(const std::string& entryPoint, FakeCall call);

  // The reply body that every request handle reads, from its start.
  void SetReply(std::string bytes);

  // Completes every hung call as its script says (on success writing into the caller's blocks as
  // WinInet would), then delivers the HANDLE_CLOSING notifications that waited for them.
  void ReleaseHung();

  // The request handles' records, in the order they were made.
  std::vector<Request> Requests() const;
  // The log holds one line per call: the entry point's name and its main argument (server:port
  // of InternetConnectW, the size offered to a write or read, REPLACE or ADD of a header call,
  // the kind of handle a close is given: root, connection or request). Count counts the lines that are the words, or the words
  // and more after a space.
  int Count(const std::string& words) const;
  // Where the line first stands in the log (the log's length if nowhere).
  std::ptrdiff_t Position(const std::string& line) const;

private:
  struct Handle;
  struct Pending;
  // What a call does when it succeeds, at once or at its completion, under the lock: the result
  // it reports.
  using Effect = std::function<DWORD_PTR(Handle& on, ::DWORD bytes)>;

  static FakeWinInet* active;

  // Takes the script of the call, logs the call as `line` and runs what the script does inside it.
  FakeCall Begin(std::string line);
  // A call on a live handle of that kind: fails, succeeds or pends as scripted, and gives the
  // effect's result at once, or 0 with the last error set. `madeContext` is the context of the
  // handle that the call makes, if it makes one.
  DWORD_PTR Call(std::string line, HINTERNET on, int kind, ::DWORD errorIfDead, DWORD_PTR madeContext, Effect effect);
  void Complete(Pending* call, bool cancelled);
  BOOL Close(HINTERNET value);
  // Under the lock: a new handle that inherits the parent's callback.
  std::uintptr_t Make(int kind, Handle* parent, DWORD_PTR context);
  Handle* Find(HINTERNET handle);
  void Schedule(int delayMs, std::function<void()> task);
  // Calls the callback of the handle, if it has one, and the context is not 0.
  void Notify(Handle& on, DWORD_PTR context, ::DWORD status, DWORD_PTR result, ::DWORD error);

  mutable std::mutex lock;
  std::map<std::string, std::vector<FakeCall>> scripts;
  std::map<std::uintptr_t, std::unique_ptr<Handle>> handles;
  std::vector<std::unique_ptr<Pending>> pending;
  std::vector<std::string> log;
  std::string reply;
  const bool closeCancels;
  std::uintptr_t nextHandle = 0x100;
  // Each scheduled completion runs on a thread of its own.
  std::vector<std::thread> threads;

  WinInetTable saved;
};

} // namespace QOR::test
