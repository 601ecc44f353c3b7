#include "FakeWinInet.h"

#include <qorxmlu/foundation/Utility.h>

#include "platform/Platform.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace QOR::test {

namespace {

constexpr BOOL succeeded = 1;
constexpr BOOL failed = 0;
constexpr ::DWORD errorInvalidHandle = 6;
constexpr ::DWORD errorIoPending = 997;
constexpr ::DWORD errorIncorrectHandleType = 12018;
constexpr ::DWORD errorOperationCancelled = 12017;

enum HandleKind { rootKind, connectionKind, requestKind };

template <class Unit> std::u16string Units(const Unit* text) {
  std::u16string units;
  for (; text && *text; ++text) units += static_cast<char16_t>(*text);
  return units;
}

std::string Ascii(const std::u16string& text) {
  std::string ascii;
  for (char16_t unit : text) ascii += unit < 0x80 ? static_cast<char>(unit) : '?';
  return ascii;
}

HINTERNET AsHandle(std::uintptr_t value) { return reinterpret_cast<HINTERNET>(value); }
std::uintptr_t AsValue(HINTERNET handle) { return reinterpret_cast<std::uintptr_t>(handle); }

} // namespace

struct FakeWinInet::Handle {
  HandleKind kind;
  std::uintptr_t parent;
  DWORD_PTR context;
  INTERNET_STATUS_CALLBACK callback;
  bool closed = false;
  // HANDLE_CLOSING waits until the calls still pending on the handle have ended.
  bool closingDeferred = false;
  std::size_t request = 0;
  std::size_t readOffset = 0;
};

// A call that reported ERROR_IO_PENDING and has not completed yet.
struct FakeWinInet::Hung {
  Api api;
  std::uintptr_t handle; // the handle the call was made on
  DWORD_PTR context;
  FakeCall call;
  const void* data = nullptr;
  ::DWORD size = 0;
  LPDWORD written = nullptr;
  LPINTERNET_BUFFERSA read = nullptr;
  bool done = false;
};

FakeWinInet* FakeWinInet::active = nullptr;

FakeWinInet::FakeWinInet() {
  saved = winInet;
  active = this;
  // Errors come from the thread's own last error, not from a loaded libqorinet.
  platform::SetLastErrorSource(nullptr);
  winInet.module = nullptr;
  winInet.InternetOpenW = &InternetOpenW;
  winInet.InternetCloseHandle = &InternetCloseHandle;
  winInet.InternetSetStatusCallbackW = &InternetSetStatusCallbackW;
  winInet.HttpOpenRequestA = &HttpOpenRequestA;
  winInet.InternetSetOptionW = &InternetSetOptionW;
  winInet.InternetWriteFile = &InternetWriteFile;
  winInet.InternetReadFileExA = &InternetReadFileExA;
  winInet.HttpEndRequestW = &HttpEndRequestW;
  winInet.InternetConnectW = &InternetConnectW;
  winInet.HttpSendRequestExW = &HttpSendRequestExW;
  winInet.HttpAddRequestHeadersW = &HttpAddRequestHeadersW;
  worker = std::thread([this] { Worker(); });
}

FakeWinInet::~FakeWinInet() {
  Drain();
  {
    std::lock_guard<std::mutex> hold(lock);
    stopping = true;
  }
  changed.notify_all();
  worker.join();
  winInet = saved;
  active = nullptr;
}

void FakeWinInet::Script(Api api, FakeCall call) {
  std::lock_guard<std::mutex> hold(lock);
  scripts[api].push_back(std::move(call));
}

void FakeWinInet::SetReply(std::string bytes) {
  std::lock_guard<std::mutex> hold(lock);
  reply = std::move(bytes);
}

void FakeWinInet::SetCloseCancels(bool cancels) {
  std::lock_guard<std::mutex> hold(lock);
  closeCancels = cancels;
}

FakeCall FakeWinInet::Next(Api api) {
  std::lock_guard<std::mutex> hold(lock);
  auto& queue = scripts[api];
  if (queue.empty()) return FakeCall::Succeed();
  FakeCall call = std::move(queue.front());
  queue.erase(queue.begin());
  return call;
}

FakeCall FakeWinInet::Begin(Api api, std::string line) {
  FakeCall call = Next(api);
  Record(std::move(line));
  if (call.inside) call.inside();
  return call;
}

std::uintptr_t FakeWinInet::NewHandle(int kind, std::uintptr_t parent, DWORD_PTR context) {
  auto handle = std::make_unique<Handle>();
  handle->kind = static_cast<HandleKind>(kind);
  handle->parent = parent;
  handle->context = context;
  Handle* owner = Find(parent);
  handle->callback = owner ? owner->callback : nullptr;
  std::uintptr_t value = nextHandle++;
  handles[value] = std::move(handle);
  return value;
}

FakeWinInet::Handle* FakeWinInet::Find(std::uintptr_t handle) {
  auto found = handles.find(handle);
  return found == handles.end() ? nullptr : found->second.get();
}

void FakeWinInet::Record(std::string line) {
  std::lock_guard<std::mutex> hold(lock);
  log.push_back(std::move(line));
}

void FakeWinInet::Schedule(int delayMs, std::function<void()> task) {
  {
    std::lock_guard<std::mutex> hold(lock);
    tasks.push_back(
        {std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs), taskOrder++, std::move(task)});
  }
  changed.notify_all();
}

void FakeWinInet::Worker() {
  std::unique_lock<std::mutex> hold(lock);
  for (;;) {
    if (tasks.empty()) {
      if (stopping) return;
      changed.wait(hold);
      continue;
    }
    auto next = std::min_element(tasks.begin(), tasks.end(), [](const Task& a, const Task& b) {
      return a.due != b.due ? a.due < b.due : a.order < b.order;
    });
    if (next->due > std::chrono::steady_clock::now() && !stopping) {
      auto due = next->due; // the list may grow while this waits
      changed.wait_until(hold, due);
      continue;
    }
    std::function<void()> run = std::move(next->run);
    tasks.erase(next);
    ++running;
    hold.unlock();
    run();
    hold.lock();
    --running;
    changed.notify_all();
  }
}

void FakeWinInet::Drain() {
  std::unique_lock<std::mutex> hold(lock);
  changed.wait(hold, [this] { return tasks.empty() && running == 0; });
}

void FakeWinInet::Notify(std::uintptr_t handle, ::DWORD status, DWORD_PTR result, ::DWORD error) {
  INTERNET_STATUS_CALLBACK callback = nullptr;
  DWORD_PTR context = 0;
  {
    std::lock_guard<std::mutex> hold(lock);
    if (Handle* owner = Find(handle)) {
      callback = owner->callback;
      context = owner->context;
    }
  }
  INTERNET_ASYNC_RESULT info{result, error};
  if (callback && context) callback(AsHandle(handle), context, status, &info, sizeof info);
}

void FakeWinInet::Created(std::uintptr_t parent, std::uintptr_t handle) {
  INTERNET_STATUS_CALLBACK callback = nullptr;
  DWORD_PTR context = 0;
  {
    std::lock_guard<std::mutex> hold(lock);
    if (Handle* made = Find(handle)) {
      callback = made->callback;
      context = made->context;
    }
  }
  INTERNET_ASYNC_RESULT info{handle, 0};
  if (callback && context) callback(AsHandle(parent), context, 60, &info, sizeof info);
}

void FakeWinInet::Closing(std::uintptr_t handle) { Notify(handle, 70, handle, 0); }

// Ends a pending call: its effects (unless it failed or was cancelled), then REQUEST_COMPLETE,
// then HANDLE_CLOSING if a close of the handle was waiting for it.
struct FakeWinInet::Entry {
  static void Complete(FakeWinInet& fake, Hung* call, bool cancelled) {
    DWORD_PTR result = 1;
    ::DWORD error = cancelled ? errorOperationCancelled : call->call.error;
    std::uintptr_t created = 0;
    bool closing = false;
    {
      std::lock_guard<std::mutex> hold(fake.lock);
      if (call->done) return;
      call->done = true;
      Handle* handle = fake.Find(call->handle);
      if (error == 0) {
        if (call->api == Api::InternetWriteFile && handle) {
          ::DWORD count = std::min(call->size, call->call.bytes);
          fake.requests[handle->request].body.append(static_cast<const char*>(call->data), count);
          *call->written = count;
        } else if (call->api == Api::InternetReadFileExA && handle) {
          *call->read = Serve(fake, *handle, *call->read, call->call.bytes);
        } else if (call->api == Api::HttpOpenRequestA || call->api == Api::InternetConnectW) {
          created = fake.NewHandle(call->api == Api::HttpOpenRequestA ? requestKind : connectionKind, call->handle,
                                   call->context);
          if (call->api == Api::HttpOpenRequestA) {
            fake.requests.emplace_back();
            fake.Find(created)->request = fake.requests.size() - 1;
          }
          result = created;
        }
      } else {
        result = 0;
      }
      bool others = std::any_of(fake.hung.begin(), fake.hung.end(), [call](const std::unique_ptr<Hung>& other) {
        return !other->done && other->handle == call->handle;
      });
      if (handle && handle->closingDeferred && !others) {
        handle->closingDeferred = false;
        closing = true;
      }
    }
    if (created) fake.Created(call->handle, created);
    // A call that makes a handle reports to the new handle's context, the others to their handle's.
    INTERNET_STATUS_CALLBACK callback = nullptr;
    DWORD_PTR context = call->context;
    {
      std::lock_guard<std::mutex> hold(fake.lock);
      if (Handle* handle = fake.Find(call->handle)) {
        callback = handle->callback;
        if (call->api != Api::HttpOpenRequestA && call->api != Api::InternetConnectW) context = handle->context;
      }
    }
    INTERNET_ASYNC_RESULT info{result, error};
    if (callback && context) callback(AsHandle(call->handle), context, 100, &info, sizeof info);
    if (closing) fake.Closing(call->handle);
  }

  static INTERNET_BUFFERSA Serve(FakeWinInet& fake, Handle& handle, INTERNET_BUFFERSA buffers, ::DWORD limit) {
    std::size_t left = fake.reply.size() - std::min(fake.reply.size(), handle.readOffset);
    ::DWORD count = static_cast<::DWORD>(std::min<std::size_t>({left, buffers.dwBufferLength, limit}));
    if (count) std::memcpy(buffers.lpvBuffer, fake.reply.data() + handle.readOffset, count);
    handle.readOffset += count;
    buffers.dwBufferLength = count;
    return buffers;
  }

  // Starts a pending call: scheduled for Pend, kept for Hang. Sets ERROR_IO_PENDING.
  static void Start(FakeWinInet& fake, Hung* call) {
    {
      std::lock_guard<std::mutex> hold(fake.lock);
      fake.hung.emplace_back(call);
    }
    if (call->call.kind == FakeCall::Kind::Pend) {
      fake.Schedule(call->call.delayMs, [&fake, call] { Complete(fake, call, false); });
    }
    SetLastError(errorIoPending);
  }

  // True (with the last error set) when the script fails the call.
  static bool Fails(const FakeCall& call) {
    if (call.kind == FakeCall::Kind::Fail) SetLastError(call.error);
    return call.kind == FakeCall::Kind::Fail;
  }

  // The handle if it is open and of that kind; otherwise sets the error and gives null.
  static Handle* Live(FakeWinInet& fake, HINTERNET value, HandleKind kind, ::DWORD errorIfDead) {
    std::lock_guard<std::mutex> hold(fake.lock);
    Handle* handle = fake.Find(AsValue(value));
    if (!handle || handle->closed || handle->kind != kind) {
      SetLastError(errorIfDead);
      return nullptr;
    }
    return handle;
  }
};

HINTERNET WINAPI FakeWinInet::InternetOpenW(LPCWSTR agent, ::DWORD, LPCWSTR, LPCWSTR, ::DWORD flags) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Begin(Api::InternetOpenW, "InternetOpenW " + Ascii(Units(agent)) + " " + std::to_string(flags));
  if (Entry::Fails(call)) return nullptr;
  std::lock_guard<std::mutex> hold(fake.lock);
  return AsHandle(fake.NewHandle(rootKind, 0, 0));
}

INTERNET_STATUS_CALLBACK WINAPI FakeWinInet::InternetSetStatusCallbackW(HINTERNET value,
                                                                        INTERNET_STATUS_CALLBACK callback) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Next(Api::InternetSetStatusCallbackW);
  fake.Record(callback ? "InternetSetStatusCallbackW" : "InternetSetStatusCallbackW null");
  if (call.kind == FakeCall::Kind::Fail) {
    SetLastError(call.error);
    return reinterpret_cast<INTERNET_STATUS_CALLBACK>(static_cast<std::intptr_t>(-1));
  }
  std::lock_guard<std::mutex> hold(fake.lock);
  Handle* handle = fake.Find(AsValue(value));
  if (!handle) return reinterpret_cast<INTERNET_STATUS_CALLBACK>(static_cast<std::intptr_t>(-1));
  return std::exchange(handle->callback, callback);
}

HINTERNET WINAPI FakeWinInet::InternetConnectW(HINTERNET root, LPCWSTR server, INTERNET_PORT port, LPCWSTR user,
                                               LPCWSTR password, ::DWORD service, ::DWORD flags, DWORD_PTR context) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Begin(Api::InternetConnectW, "InternetConnectW " + Ascii(Units(server)) + ":" +
                                                        std::to_string(port) + " " + std::to_string(service) + " " +
                                                        std::to_string(flags) +
                                                        (user && password && !*user && !*password ? "" : " credentials"));
  if (Entry::Fails(call)) return nullptr;
  if (!Entry::Live(fake, root, rootKind, errorInvalidHandle)) return nullptr;
  if (call.kind != FakeCall::Kind::Succeed) {
    Entry::Start(fake, new Hung{Api::InternetConnectW, AsValue(root), context, std::move(call)});
    return nullptr;
  }
  std::uintptr_t made;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    made = fake.NewHandle(connectionKind, AsValue(root), context);
  }
  fake.Created(AsValue(root), made);
  return AsHandle(made);
}

HINTERNET WINAPI FakeWinInet::HttpOpenRequestA(HINTERNET connection, LPCSTR verb, LPCSTR objectName, LPCSTR version,
                                               LPCSTR referrer, LPCSTR* acceptTypes, ::DWORD flags, DWORD_PTR context) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Next(Api::HttpOpenRequestA);
  fake.Record(std::string("HttpOpenRequestA ") + (verb ? verb : "") + " " + (objectName ? objectName : ""));
  if (call.kind == FakeCall::Kind::Fail) {
    if (call.inside) call.inside();
    SetLastError(call.error);
    return nullptr;
  }
  if (!Entry::Live(fake, connection, connectionKind, errorInvalidHandle)) return nullptr;
  Request request;
  request.verb = verb ? verb : "";
  request.objectName = objectName ? objectName : "";
  request.versionGiven = version != nullptr;
  request.referrer = referrer ? referrer : "";
  for (LPCSTR* type = acceptTypes; type && *type; ++type) request.acceptTypes.push_back(*type);
  request.flags = flags;
  request.context = context;
  if (call.kind != FakeCall::Kind::Succeed) {
    {
      std::lock_guard<std::mutex> hold(fake.lock);
      fake.requests.push_back(std::move(request));
    }
    if (call.inside) call.inside();
    Entry::Start(fake, new Hung{Api::HttpOpenRequestA, AsValue(connection), context, std::move(call)});
    return nullptr;
  }
  std::uintptr_t made;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    made = fake.NewHandle(requestKind, AsValue(connection), context);
    fake.requests.push_back(std::move(request));
    fake.Find(made)->request = fake.requests.size() - 1;
  }
  fake.Created(AsValue(connection), made);
  if (call.inside) call.inside();
  return AsHandle(made);
}

BOOL WINAPI FakeWinInet::HttpAddRequestHeadersW(HINTERNET value, LPCWSTR headers, ::DWORD length, ::DWORD modifiers) {
  FakeWinInet& fake = *active;
  std::string mode = modifiers == 0x80000000 ? "REPLACE" : modifiers == 0x20000000 ? "ADD" : std::to_string(modifiers);
  FakeCall call = fake.Begin(Api::HttpAddRequestHeadersW, "HttpAddRequestHeadersW " + mode +
                                                              (length == 0xFFFFFFFF ? "" : " length " + std::to_string(length)));
  Handle* handle = Entry::Live(fake, value, requestKind, errorIncorrectHandleType);
  if (!handle || Entry::Fails(call)) return failed;
  std::lock_guard<std::mutex> hold(fake.lock);
  fake.requests[handle->request].headerCalls.push_back(mode + " " + Ascii(Units(headers)));
  return succeeded;
}

BOOL WINAPI FakeWinInet::HttpSendRequestExW(HINTERNET value, LPINTERNET_BUFFERSW in, LPINTERNET_BUFFERSW out,
                                            ::DWORD flags, DWORD_PTR context) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Begin(Api::HttpSendRequestExW,
                             "HttpSendRequestExW " + std::to_string(in ? in->dwBufferTotal : 0) + " " +
                                 std::to_string(flags) + (out ? " out" : "") +
                                 (in && in->dwStructSize == sizeof(INTERNET_BUFFERSW) ? "" : " badsize"));
  Handle* handle = Entry::Live(fake, value, requestKind, errorIncorrectHandleType);
  if (!handle) return failed;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    fake.requests[handle->request].announced = in ? in->dwBufferTotal : 0;
  }
  if (Entry::Fails(call)) return failed;
  if (call.kind != FakeCall::Kind::Succeed) {
    Entry::Start(fake, new Hung{Api::HttpSendRequestExW, AsValue(value), context, std::move(call)});
    return failed;
  }
  return succeeded;
}

BOOL WINAPI FakeWinInet::InternetWriteFile(HINTERNET value, const void* data, ::DWORD size, LPDWORD written) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Begin(Api::InternetWriteFile, "InternetWriteFile " + std::to_string(size));
  Handle* handle = Entry::Live(fake, value, requestKind, errorInvalidHandle);
  if (!handle) return failed;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    fake.requests[handle->request].writesOffered.push_back(size);
  }
  if (Entry::Fails(call)) return failed;
  if (call.kind != FakeCall::Kind::Succeed) {
    auto* pending = new Hung{Api::InternetWriteFile, AsValue(value), 0, std::move(call)};
    pending->data = data;
    pending->size = size;
    pending->written = written;
    Entry::Start(fake, pending);
    return failed;
  }
  std::lock_guard<std::mutex> hold(fake.lock);
  ::DWORD count = std::min(size, call.bytes);
  fake.requests[handle->request].body.append(static_cast<const char*>(data), count);
  *written = count;
  return succeeded;
}

BOOL WINAPI FakeWinInet::HttpEndRequestW(HINTERNET value, LPINTERNET_BUFFERSW out, ::DWORD flags, DWORD_PTR context) {
  FakeWinInet& fake = *active;
  FakeCall call =
      fake.Begin(Api::HttpEndRequestW, "HttpEndRequestW" + std::string(out ? " out" : "") + (flags ? " flags" : ""));
  Handle* handle = Entry::Live(fake, value, requestKind, errorIncorrectHandleType);
  if (!handle || Entry::Fails(call)) return failed;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    fake.requests[handle->request].ended = true;
  }
  if (call.kind != FakeCall::Kind::Succeed) {
    Entry::Start(fake, new Hung{Api::HttpEndRequestW, AsValue(value), context, std::move(call)});
    return failed;
  }
  return succeeded;
}

BOOL WINAPI FakeWinInet::InternetReadFileExA(HINTERNET value, LPINTERNET_BUFFERSA buffers, ::DWORD flags,
                                             DWORD_PTR context) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Begin(Api::InternetReadFileExA, "InternetReadFileExA " +
                                                           std::to_string(buffers ? buffers->dwBufferLength : 0) +
                                                           (flags == 1 ? "" : " flags " + std::to_string(flags)));
  Handle* handle = Entry::Live(fake, value, requestKind, errorInvalidHandle);
  if (!handle || Entry::Fails(call)) return failed;
  if (call.kind != FakeCall::Kind::Succeed) {
    auto* pending = new Hung{Api::InternetReadFileExA, AsValue(value), context, std::move(call)};
    pending->read = buffers;
    Entry::Start(fake, pending);
    return failed;
  }
  std::lock_guard<std::mutex> hold(fake.lock);
  *buffers = Entry::Serve(fake, *handle, *buffers, call.bytes);
  return succeeded;
}

BOOL WINAPI FakeWinInet::InternetCloseHandle(HINTERNET value) {
  FakeWinInet& fake = *active;
  FakeCall call = fake.Next(Api::InternetCloseHandle);
  std::vector<Hung*> pending;
  bool cancels;
  HandleKind kind;
  {
    std::lock_guard<std::mutex> hold(fake.lock);
    Handle* handle = fake.Find(AsValue(value));
    static const char* kindNames[] = {"root", "connection", "request"};
    fake.log.push_back(std::string("InternetCloseHandle ") + (handle ? kindNames[handle->kind] : "unknown"));
    if (!handle || handle->closed) {
      SetLastError(errorInvalidHandle);
      return failed;
    }
    if (call.kind == FakeCall::Kind::Fail) {
      SetLastError(call.error);
      return failed;
    }
    handle->closed = true;
    kind = handle->kind;
    for (auto& open : fake.hung)
      if (!open->done && open->handle == AsValue(value)) pending.push_back(open.get());
    cancels = fake.closeCancels;
    if (!pending.empty() && !cancels) handle->closingDeferred = true;
  }
  if (call.inside) call.inside();
  std::uintptr_t closed = AsValue(value);
  if (kind == rootKind || (!pending.empty() && !cancels)) return succeeded;
  if (!pending.empty()) {
    fake.Schedule(0, [&fake, pending, closed] {
      for (Hung* open : pending) Entry::Complete(fake, open, true);
      fake.Closing(closed);
    });
  } else if (call.kind == FakeCall::Kind::Pend) {
    fake.Schedule(call.delayMs, [&fake, closed, error = call.error] {
      if (error) fake.Notify(closed, 100, 0, error);
      fake.Closing(closed);
    });
  } else if (call.kind == FakeCall::Kind::Succeed) {
    fake.Closing(closed);
  }
  // Hang: HANDLE_CLOSING never comes.
  return succeeded;
}

BOOL WINAPI FakeWinInet::InternetSetOptionW(HINTERNET, ::DWORD, LPVOID, ::DWORD) {
  active->Record("InternetSetOptionW");
  return succeeded;
}

void FakeWinInet::ReleaseHung() {
  std::vector<Hung*> open;
  {
    std::lock_guard<std::mutex> hold(lock);
    for (auto& call : hung)
      if (!call->done && call->call.kind == FakeCall::Kind::Hang) open.push_back(call.get());
  }
  for (Hung* call : open) Entry::Complete(*this, call, false);
}

std::vector<FakeWinInet::Request> FakeWinInet::Requests() const {
  std::lock_guard<std::mutex> hold(lock);
  return requests;
}

std::vector<std::string> FakeWinInet::Log() const {
  std::lock_guard<std::mutex> hold(lock);
  return log;
}

int FakeWinInet::Count(const std::string& entryPoint) const {
  std::lock_guard<std::mutex> hold(lock);
  return static_cast<int>(std::count_if(log.begin(), log.end(), [&](const std::string& line) {
    return line == entryPoint || line.rfind(entryPoint + " ", 0) == 0;
  }));
}

int FakeWinInet::OpenHandles() const {
  std::lock_guard<std::mutex> hold(lock);
  return static_cast<int>(
      std::count_if(handles.begin(), handles.end(), [](const auto& entry) { return !entry.second->closed; }));
}

} // namespace QOR::test
