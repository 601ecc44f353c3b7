#include "Handle.h"

#include "HandleTable.h"

namespace QOR::inet {

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
    {
      std::lock_guard<std::mutex> guard(handle->session->Lock());
      --handle->callbacksRunning;
    }
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
    std::lock_guard<std::mutex> guard(session->Lock());
    closeRequested = true;
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
  target(subject, context, status, const_cast<void*>(info), length);
}

} // namespace QOR::inet
