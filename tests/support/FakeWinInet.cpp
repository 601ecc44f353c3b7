#include "FakeWinInet.h"

#include <qorxmlu/foundation/Utility.h>

#include "platform/Platform.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace QOR::test {

namespace {

constexpr ::DWORD errorInvalidHandle = 6;
constexpr ::DWORD errorIoPending = 997;
constexpr ::DWORD errorIncorrectHandleType = 12018;
constexpr ::DWORD errorOperationCancelled = 12017;
constexpr ::DWORD statusHandleCreated = 60;
constexpr ::DWORD statusHandleClosing = 70;
constexpr ::DWORD statusRequestComplete = 100;

enum HandleKind { rootKind, connectionKind, requestKind };

HINTERNET AsHandle(std::uintptr_t value) { return reinterpret_cast<HINTERNET>(value); }

} // namespace

struct FakeWinInet::Handle {
  std::uintptr_t value;
  int kind;
  DWORD_PTR context;
  INTERNET_STATUS_CALLBACK callback;
  bool closed = false;
  // HANDLE_CLOSING waits until the calls still pending on the handle have ended.
  bool closingDeferred = false;
  Request request; // of a request handle
  std::size_t readOffset = 0;
};

// A call that reported ERROR_IO_PENDING and has not completed yet.
struct FakeWinInet::Pending {
  Handle* on;
  DWORD_PTR context; // the one its completion reports to
  bool makesHandle;
  FakeCall call;
  Effect effect;
  bool done = false;
};

FakeWinInet* FakeWinInet::active = nullptr;

// The entry points reach the fake through `active`.
FakeWinInet::FakeWinInet(bool closeCancels) : closeCancels(closeCancels) {
  saved = winInet;
  active = this;
  // Errors come from the thread's own last error, not from a loaded libqorinet.
  platform::SetLastErrorSource(nullptr);
  winInet.module = nullptr;
  winInet.InternetOpenW = [](LPCWSTR, ::DWORD, LPCWSTR, LPCWSTR, ::DWORD) -> HINTERNET {
    if (active->Begin("InternetOpenW").kind == FakeCall::Kind::Fail) return nullptr;
    std::lock_guard<std::mutex> hold(active->lock);
    return AsHandle(active->Make(rootKind, nullptr, 0));
  };
  winInet.InternetSetStatusCallbackW = [](HINTERNET value, INTERNET_STATUS_CALLBACK callback) {
    bool fails = active->Begin(callback ? "InternetSetStatusCallbackW" : "InternetSetStatusCallbackW null").kind ==
                 FakeCall::Kind::Fail;
    std::lock_guard<std::mutex> hold(active->lock);
    Handle* handle = active->Find(value);
    if (fails || !handle) return reinterpret_cast<INTERNET_STATUS_CALLBACK>(static_cast<std::intptr_t>(-1));
    return std::exchange(handle->callback, callback);
  };
  winInet.InternetConnectW = [](HINTERNET root, LPCWSTR server, INTERNET_PORT port, LPCWSTR, LPCWSTR, ::DWORD,
                                ::DWORD, DWORD_PTR context) {
    return AsHandle(active->Call("InternetConnectW " + String(server).ToUtf8() + ":" + std::to_string(port), root,
                                 rootKind, errorInvalidHandle, context, [context](Handle& on, ::DWORD) {
                                   return active->Make(connectionKind, &on, context);
                                 }));
  };
  winInet.HttpOpenRequestA = [](HINTERNET connection, LPCSTR, LPCSTR objectName, LPCSTR, LPCSTR, LPCSTR*, ::DWORD,
                                DWORD_PTR context) {
    return AsHandle(active->Call(std::string("HttpOpenRequestA ") + objectName, connection, connectionKind,
                                 errorInvalidHandle, context, [context](Handle& on, ::DWORD) {
                                   return active->Make(requestKind, &on, context);
                                 }));
  };
  winInet.HttpAddRequestHeadersW = [](HINTERNET request, LPCWSTR, ::DWORD, ::DWORD modifiers) -> BOOL {
    std::string mode = modifiers == 0x80000000 ? "REPLACE" : modifiers == 0x20000000 ? "ADD" : std::to_string(modifiers);
    return active->Call("HttpAddRequestHeadersW " + mode, request, requestKind, errorIncorrectHandleType, 0,
                        [](Handle&, ::DWORD) { return DWORD_PTR{1}; }) != 0;
  };
  winInet.HttpSendRequestExW = [](HINTERNET request, LPINTERNET_BUFFERSW in, LPINTERNET_BUFFERSW, ::DWORD,
                                  DWORD_PTR) -> BOOL {
    return active->Call("HttpSendRequestExW", request, requestKind, errorIncorrectHandleType, 0,
                        [total = in->dwBufferTotal](Handle& on, ::DWORD) {
                          on.request.announced = total;
                          return DWORD_PTR{1};
                        }) != 0;
  };
  winInet.InternetWriteFile = [](HINTERNET file, const void* data, ::DWORD size, LPDWORD written) -> BOOL {
    return active->Call("InternetWriteFile " + std::to_string(size), file, requestKind, errorInvalidHandle, 0,
                        [data, size, written](Handle& on, ::DWORD bytes) {
                          on.request.writesOffered.push_back(size);
                          *written = std::min(size, bytes);
                          on.request.body.append(static_cast<const char*>(data), *written);
                          return DWORD_PTR{1};
                        }) != 0;
  };
  winInet.HttpEndRequestW = [](HINTERNET request, LPINTERNET_BUFFERSW, ::DWORD, DWORD_PTR) -> BOOL {
    return active->Call("HttpEndRequestW", request, requestKind, errorIncorrectHandleType, 0,
                        [](Handle&, ::DWORD) { return DWORD_PTR{1}; }) != 0;
  };
  winInet.InternetReadFileExA = [](HINTERNET file, LPINTERNET_BUFFERSA buffers, ::DWORD, DWORD_PTR) -> BOOL {
    return active->Call("InternetReadFileExA " + std::to_string(buffers->dwBufferLength), file, requestKind,
                        errorInvalidHandle, 0, [buffers](Handle& on, ::DWORD bytes) {
                          const std::string& reply = active->reply;
                          std::size_t left = reply.size() - std::min(reply.size(), on.readOffset);
                          auto count = static_cast<::DWORD>(std::min<std::size_t>({left, buffers->dwBufferLength, bytes}));
                          if (count) std::memcpy(buffers->lpvBuffer, reply.data() + on.readOffset, count);
                          on.readOffset += count;
                          buffers->dwBufferLength = count;
                          return DWORD_PTR{1};
                        }) != 0;
  };
  winInet.InternetCloseHandle = [](HINTERNET handle) { return active->Close(handle); };
}

// A task may schedule more (a callback that closes a handle): join until none is left.
FakeWinInet::~FakeWinInet() {
  for (std::vector<std::thread> started;; started.clear()) {
    {
      std::lock_guard<std::mutex> hold(lock);
      started.swap(threads);
    }
    if (started.empty()) break;
    for (std::thread& thread : started) thread.join();
  }
  winInet = saved;
  active = nullptr;
}

void FakeWinInet::Script(const std::string& entryPoint, FakeCall call) {
  std::lock_guard<std::mutex> hold(lock);
  scripts[entryPoint].push_back(std::move(call));
}

void FakeWinInet::SetReply(std::string bytes) {
  std::lock_guard<std::mutex> hold(lock);
  reply = std::move(bytes);
}

FakeCall FakeWinInet::Begin(std::string line) {
  FakeCall call = FakeCall::Succeed();
  {
    std::lock_guard<std::mutex> hold(lock);
    auto& queue = scripts[line.substr(0, line.find(' '))];
    if (!queue.empty()) {
      call = std::move(queue.front());
      queue.erase(queue.begin());
    }
    log.push_back(std::move(line));
  }
  if (call.inside) call.inside();
  if (call.kind == FakeCall::Kind::Fail) SetLastError(call.error);
  return call;
}

std::uintptr_t FakeWinInet::Make(int kind, Handle* parent, DWORD_PTR context) {
  std::uintptr_t value = nextHandle++;
  handles[value] = std::make_unique<Handle>(Handle{value, kind, context, parent ? parent->callback : nullptr});
  return value;
}

FakeWinInet::Handle* FakeWinInet::Find(HINTERNET handle) {
  auto found = handles.find(reinterpret_cast<std::uintptr_t>(handle));
  return found == handles.end() ? nullptr : found->second.get();
}

// Each task runs on a thread of its own after its delay; the destructor joins them all.
void FakeWinInet::Schedule(int delayMs, std::function<void()> task) {
  std::lock_guard<std::mutex> hold(lock);
  threads.emplace_back([delayMs, task = std::move(task)] {
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    task();
  });
}

void FakeWinInet::Notify(Handle& on, DWORD_PTR context, ::DWORD status, DWORD_PTR result, ::DWORD error) {
  INTERNET_STATUS_CALLBACK callback;
  {
    std::lock_guard<std::mutex> hold(lock);
    callback = on.callback;
  }
  INTERNET_ASYNC_RESULT info{result, error};
  if (callback && context) callback(AsHandle(on.value), context, status, &info, sizeof info);
}

DWORD_PTR FakeWinInet::Call(std::string line, HINTERNET value, int kind, ::DWORD errorIfDead, DWORD_PTR madeContext,
                            Effect effect) {
  FakeCall call = Begin(std::move(line));
  Handle* on;
  DWORD_PTR result = 0;
  {
    std::lock_guard<std::mutex> hold(lock);
    on = Find(value);
    if (!on || on->closed || on->kind != kind) {
      SetLastError(errorIfDead);
      return 0;
    }
    if (call.kind == FakeCall::Kind::Fail) return 0;
    if (call.kind == FakeCall::Kind::Succeed) result = effect(*on, call.bytes);
  }
  if (call.kind == FakeCall::Kind::Succeed) {
    if (madeContext) Notify(*on, madeContext, statusHandleCreated, result, 0);
    return result;
  }
  auto* started = new Pending{on, madeContext ? madeContext : on->context, madeContext != 0, call, std::move(effect)};
  {
    std::lock_guard<std::mutex> hold(lock);
    pending.emplace_back(started);
  }
  if (call.kind == FakeCall::Kind::Pend) Schedule(call.delayMs, [this, started] { Complete(started, false); });
  SetLastError(errorIoPending);
  return 0;
}

// Ends a pending call: its effect (unless it failed or was cancelled), then REQUEST_COMPLETE,
// then HANDLE_CLOSING if a close of the handle was waiting for it.
void FakeWinInet::Complete(Pending* call, bool cancelled) {
  ::DWORD error = cancelled ? errorOperationCancelled : call->call.error;
  DWORD_PTR result = 0;
  bool closing;
  {
    std::lock_guard<std::mutex> hold(lock);
    if (call->done) return;
    call->done = true;
    if (error == 0) result = call->effect(*call->on, call->call.bytes);
    closing = call->on->closingDeferred && std::none_of(pending.begin(), pending.end(), [call](const auto& other) {
                return !other->done && other->on == call->on;
              });
    if (closing) call->on->closingDeferred = false;
  }
  if (result && call->makesHandle) Notify(*call->on, call->context, statusHandleCreated, result, 0);
  Notify(*call->on, call->context, statusRequestComplete, result, error);
  if (closing) Notify(*call->on, call->on->context, statusHandleClosing, call->on->value, 0);
}

// A close cancels the calls pending on the handle (or, if closes don't cancel, lets them run and
// holds HANDLE_CLOSING back until they end). A scripted Pend delays HANDLE_CLOSING, after a
// completion with its error if it has one; Hang keeps it back for good.
BOOL FakeWinInet::Close(HINTERNET value) {
  Handle* handle;
  {
    std::lock_guard<std::mutex> hold(lock);
    handle = Find(value);
  }
  static const char* kindNames[] = {"root", "connection", "request"};
  FakeCall call = Begin(std::string("InternetCloseHandle ") + (handle ? kindNames[handle->kind] : "unknown"));
  std::vector<Pending*> open;
  bool deferred;
  {
    std::lock_guard<std::mutex> hold(lock);
    if (!handle || handle->closed) SetLastError(errorInvalidHandle);
    if (!handle || handle->closed || call.kind == FakeCall::Kind::Fail) return 0;
    handle->closed = true;
    for (auto& started : pending)
      if (!started->done && started->on == handle) open.push_back(started.get());
    deferred = handle->closingDeferred = !open.empty() && !closeCancels;
  }
  if (handle->kind == rootKind || deferred || (call.kind == FakeCall::Kind::Hang && open.empty())) return 1;
  if (call.kind == FakeCall::Kind::Succeed && open.empty()) {
    Notify(*handle, handle->context, statusHandleClosing, handle->value, 0);
    return 1;
  }
  Schedule(call.kind == FakeCall::Kind::Pend ? call.delayMs : 0, [this, handle, open, error = call.error] {
    for (Pending* started : open) Complete(started, true);
    if (error) Notify(*handle, handle->context, statusRequestComplete, 0, error);
    Notify(*handle, handle->context, statusHandleClosing, handle->value, 0);
  });
  return 1;
}

void FakeWinInet::ReleaseHung() {
  std::vector<Pending*> open;
  {
    std::lock_guard<std::mutex> hold(lock);
    for (auto& call : pending)
      if (!call->done && call->call.kind == FakeCall::Kind::Hang) open.push_back(call.get());
  }
  for (Pending* call : open) Complete(call, false);
}

std::vector<FakeWinInet::Request> FakeWinInet::Requests() const {
  std::lock_guard<std::mutex> hold(lock);
  std::vector<Request> made;
  for (const auto& entry : handles)
    if (entry.second->kind == requestKind) made.push_back(entry.second->request);
  return made;
}

int FakeWinInet::Count(const std::string& words) const {
  std::lock_guard<std::mutex> hold(lock);
  return static_cast<int>(std::count_if(log.begin(), log.end(), [&](const std::string& line) {
    return line == words || line.rfind(words + " ", 0) == 0;
  }));
}

std::ptrdiff_t FakeWinInet::Position(const std::string& line) const {
  std::lock_guard<std::mutex> hold(lock);
  return std::find(log.begin(), log.end(), line) - log.begin();
}

} // namespace QOR::test
