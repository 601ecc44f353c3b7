// What every HINTERNET has: its place in the table and in its family, its context and status
// callback, and the closing protocol.
//
// Closing: InternetCloseHandle marks the handle closed at once, so further calls on it fail.
// HANDLE_CLOSING is reported exactly once, as the handle's last callback: inside the close when
// nothing is in flight, otherwise by whichever thread ends the last thing in flight (a callback
// still running, a pending call, a child handle not yet closed).
//
// State marked "session lock" is guarded by Session::Lock(). No callback runs with it held.
#pragma once

#include "Session.h"

#include <qorinet/wininet.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace QOR::inet {

class Handle : public std::enable_shared_from_this<Handle> {
public:
  enum class Kind { Root, Connect, Request };

  virtual ~Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  Kind GetKind() const { return kind; }
  HINTERNET Value() const { return value; }
  Session& GetSession() const { return *session; }
  bool IsClosed() const { return closed.load(std::memory_order_acquire); }
  // Installs a status callback; returns the previous one.
  INTERNET_STATUS_CALLBACK ExchangeCallback(INTERNET_STATUS_CALLBACK callback);
  // Connect time-out in milliseconds for requests made under this handle (0 = libcurl's).
  void SetConnectTimeout(DWORD milliseconds) { connectTimeout.store(milliseconds); }
  DWORD ConnectTimeout() const { return connectTimeout.load(); }

  // Enters a new handle into the table and its parent's family, then reports HANDLE_CREATED on
  // the calling thread. Null when the parent has been closed meanwhile.
  static HINTERNET Publish(const std::shared_ptr<Handle>& handle);
  // Closes this handle and its open children. False when it was closed already.
  virtual bool Close();
  // Stops what runs for this handle without reporting anything (the process is ending).
  virtual void AtExit() {}

  // Reports a status for this handle unless its HANDLE_CLOSING has gone out. `underLock` runs
  // first with the session lock held, in the same step that decides whether the report goes out.
  template <class F> void Notify(DWORD status, const void* info, DWORD length, F&& underLock);
  void Notify(DWORD status, const void* info, DWORD length) {
    Notify(status, info, length, [] {});
  }
  // REQUEST_COMPLETE with an INTERNET_ASYNC_RESULT.
  template <class F> void Complete(DWORD_PTR result, DWORD error, F&& underLock) {
    INTERNET_ASYNC_RESULT outcome{result, error};
    Notify(INTERNET_STATUS_REQUEST_COMPLETE, &outcome, sizeof outcome, std::forward<F>(underLock));
  }

protected:
  // A root handle, which owns the session.
  Handle(Kind kind, std::shared_ptr<Session> session);
  // A handle made from `parent`, in its session, inheriting its callback and options.
  Handle(Kind kind, std::shared_ptr<Handle> parent, DWORD_PTR context);

  std::shared_ptr<Session> SessionPtr() const { return session; }
  const std::shared_ptr<Handle>& Parent() const { return parent; }
  // True while something must still be reported before HANDLE_CLOSING. Session lock held.
  virtual bool Busy() const { return callbacksRunning > 0 || openChildren > 0; }
  // The close had to wait: start what ends the busy state. No lock held.
  virtual void CloseDeferred() {}
  // HANDLE_CLOSING has gone out. No lock held.
  virtual void Closed() {}
  // Reports HANDLE_CLOSING if the close is waiting and nothing is busy any more. No lock held.
  void FinishClose();

private:
  void Invoke(HINTERNET subject, DWORD status, const void* info, DWORD length);
  void SendClosing();

  const Kind kind;
  HINTERNET value = nullptr;
  const DWORD_PTR context;
  const std::shared_ptr<Session> session;
  const std::shared_ptr<Handle> parent;
  std::atomic<INTERNET_STATUS_CALLBACK> callback{nullptr};
  std::atomic<DWORD> connectTimeout{0};
  std::atomic<bool> closed{false}; // written under the session lock

  // Session lock.
  bool closeRequested = false;
  bool closingSent = false;
  int callbacksRunning = 0;
  int openChildren = 0;
  std::vector<std::weak_ptr<Handle>> children;
};

template <class F> void Handle::Notify(DWORD status, const void* info, DWORD length, F&& underLock) {
  {
    std::lock_guard<std::mutex> guard(session->Lock());
    underLock();
    if (closingSent) return;
    ++callbacksRunning;
  }
  Invoke(value, status, info, length);
  {
    std::lock_guard<std::mutex> guard(session->Lock());
    --callbacksRunning;
  }
  FinishClose();
}

} // namespace QOR::inet
