#include "Handle.h"

#include "HandleTable.h"

#include <chrono>
#include <thread>

namespace QOR::inet {

namespace {
// Status callbacks running on this thread (a callback may call into the library again).
thread_local int callbacksOnThisThread = 0;
// How long a close waits for a callback of its handle that is returning on another thread.
constexpr std::chrono::milliseconds callbackReturnWait(5);
constexpr std::chrono::microseconds callbackReturnSpin(50);
} // namespace

Handle::Handle(Kind kind, std::shared_ptr<Session> session) : kind(kind), context(0), session(std::move(session)) {}

Handle::Handle(Kind kind, std::shared_ptr<Handle> parent, DWORD_PTR context)
    : kind(kind), context(context), session(parent->session), parent(std::move(parent)) {
  callback.store(this->parent->callback.load());
  connectTimeout.store(this->parent->connectTimeout.load());
}

INTERNET_STATUS_CALLBACK Handle::ExchangeCallback(INTERNET_STATUS_CALLBACK newCallback) {
  return callback.exchange(newCallback);
}

HINTERNET Handle::Publish(const std::shared_ptr<Handle>& handle) {
  Handle* parent = handle->parent.get();
  {
    std::lock_guard<std::mutex> guard(handle->session->Lock());
    if (parent) {
      if (parent->IsClosed()) return nullptr;
      parent->children.push_back(handle);
      ++parent->openChildren;
    }
    handle->value = HandleTable::Add(handle);
  }
  if (parent) {
    INTERNET_ASYNC_RESULT created{reinterpret_cast<DWORD_PTR>(handle->value), 0};
    {
      std::lock_guard<std::mutex> guard(handle->session->Lock());
      ++handle->callbacksRunning;
    }
    handle->Invoke(parent->value, INTERNET_STATUS_HANDLE_CREATED, &created, sizeof created);
    handle->CallbackReturned();
    handle->FinishClose();
  }
  return handle->value;
}

bool Handle::Close() {
  std::vector<std::shared_ptr<Handle>> live;
  {
    std::lock_guard<std::mutex> guard(session->Lock());
    if (IsClosed()) return false;
    closed.store(true, std::memory_order_release);
    for (auto& weak : children) {
      if (auto child = weak.lock()) live.push_back(std::move(child));
    }
  }
  for (auto& child : live) child->Close();

  bool now = false;
  {
    std::unique_lock<std::mutex> guard(session->Lock());
    closeRequested = true;
    // A caller that closes just after a completion woke it finds the loop thread still on its
    // way out of that callback; waiting a moment lets HANDLE_CLOSING come here, inside the close.
    // Never from a callback: the one still running may be this thread's own.
    if (callbacksRunning > 0 && callbacksOnThisThread == 0) {
      // Usually a matter of microseconds: watch before sleeping, which costs a wake-up as much.
      auto returned = [this] { return callbacksRunning == 0; };
      auto spinUntil = std::chrono::steady_clock::now() + callbackReturnSpin;
      while (!returned() && std::chrono::steady_clock::now() < spinUntil) {
        guard.unlock();
        std::this_thread::yield();
        guard.lock();
      }
      session->CallbacksReturned().wait_for(guard, callbackReturnWait, returned);
    }
    if (!closingSent && !Busy()) now = closingSent = true;
  }
  if (now) {
    SendClosing();
  } else {
    CloseDeferred();
  }
  return true;
}

void Handle::FinishClose() {
  {
    std::lock_guard<std::mutex> guard(session->Lock());
    if (!closeRequested || closingSent || Busy()) return;
    closingSent = true;
  }
  SendClosing();
}

void Handle::SendClosing() {
  // Keeps this object alive through the table removal below.
  std::shared_ptr<Handle> self = shared_from_this();
  INTERNET_ASYNC_RESULT closing{reinterpret_cast<DWORD_PTR>(value), 0};
  Invoke(value, INTERNET_STATUS_HANDLE_CLOSING, &closing, sizeof closing);
  HandleTable::Remove(value);
  Closed();
  if (parent) {
    {
      std::lock_guard<std::mutex> guard(session->Lock());
      --parent->openChildren;
      std::erase_if(parent->children, [this](const std::weak_ptr<Handle>& weak) {
        auto child = weak.lock();
        return !child || child.get() == this;
      });
    }
    parent->FinishClose();
  }
}

void Handle::Invoke(HINTERNET subject, DWORD status, const void* info, DWORD length) {
  INTERNET_STATUS_CALLBACK target = callback.load();
  // Like WinInet, no notifications for a handle made without a context.
  if (!target || target == INTERNET_INVALID_STATUS_CALLBACK || context == 0) return;
  ++callbacksOnThisThread;
  target(subject, context, status, const_cast<void*>(info), length);
  --callbacksOnThisThread;
}

void Handle::CallbackReturned() {
  std::lock_guard<std::mutex> guard(session->Lock());
  if (--callbacksRunning == 0 && closeRequested) session->CallbacksReturned().notify_all();
}

} // namespace QOR::inet
