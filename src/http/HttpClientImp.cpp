#include "http/HttpClientImp.h"

#include <qorxmlu/foundation/CritSection.h>
#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/Utility.h>

#include "foundation/EventWait.h"
#include "http/InternetErrors.h"
#include "http/WinInetTable.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

namespace QOR {

namespace {

// A completion usually follows its call within microseconds, on WinInet's thread: the wait
// watches for it that long before it sleeps.
constexpr std::chrono::microseconds completionWatch(50);

// How long a step that ran out of time still waits for the watchdog's cancel.
constexpr DWORD watchdogTieGrace = 25;

int WaitForCompletion(SVArray<Event*, Event*>& events, int milliseconds) {
  return detail::WaitOnEventsWatching(events, milliseconds, completionWatch);
}

} // namespace

int (*engineWait)(SVArray<Event*, Event*>& events, int milliseconds) = &WaitForCompletion;

namespace {

// Guards every engine's request handle and cancelled mark.
CritSection fileHandleSection("fileHandleSection");

constexpr ::DWORD errorInvalidHandle = 6;          // ERROR_INVALID_HANDLE
constexpr ::DWORD errorIoPending = 997;            // ERROR_IO_PENDING
constexpr ::DWORD errorHttpHeaderNotFound = 12150; // ERROR_HTTP_HEADER_NOT_FOUND

constexpr ::DWORD openTypePreconfig = 0;           // INTERNET_OPEN_TYPE_PRECONFIG
constexpr ::DWORD flagAsync = 0x10000000;          // INTERNET_FLAG_ASYNC
constexpr ::DWORD serviceHttp = 3;                 // INTERNET_SERVICE_HTTP
constexpr ::DWORD requestFlags = 0x84400000;       // RELOAD | NO_CACHE_WRITE | KEEP_CONNECTION
constexpr ::DWORD secureRequestFlags = 0x00801000; // SECURE | IGNORE_CERT_CN_INVALID
constexpr ::DWORD addReqReplace = 0x80000000;      // HTTP_ADDREQ_FLAG_REPLACE
constexpr ::DWORD addReqAdd = 0x20000000;          // HTTP_ADDREQ_FLAG_ADD
constexpr ::DWORD lengthToNul = 0xFFFFFFFF;        // header length -1: up to the NUL
constexpr ::DWORD hsrInitiate = 8;                 // HSR_INITIATE
constexpr ::DWORD irfAsync = 1;                    // IRF_ASYNC

constexpr ::DWORD statusConnectedToServer = 21;
constexpr ::DWORD statusHandleCreated = 60;
constexpr ::DWORD statusHandleClosing = 70;
constexpr ::DWORD statusRequestComplete = 100;

// A browser's identification, sent as the referrer. Servers of the family expect it.
constexpr const char* referrer =
    "Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.2; WOW64; SV1; .NET CLR 2.0.50727; .NET CLR "
    "3.0.04506.30; .NET CLR 3.0.04506.648; .NET CLR 3.5.21022)";

const char* acceptTypes[] = {"image/gif",
                             "image/x-xbitmap",
                             "image/jpeg",
                             "image/pjpeg",
                             "application/x-shockwave-flash",
                             "application/vnd.ms-powerpoint",
                             "application/vnd.ms-excel",
                             "application/msword",
                             "application/xaml+xml",
                             "application/vnd.ms-xpsdocument",
                             "application/x-ms-xbap",
                             "application/x-ms-application",
                             "*/*",
                             nullptr};

struct StepWords {
  const char16_t* immediate;
  const char16_t* timedOut;
  const char16_t* failedWait;
  const char16_t* completion;
  bool cancelsAfterFailedWait;
};

// One row per step, in the order of HttpClientImp::Step. Hosts show and match these words.
constexpr StepWords stepWords[] = {
    {u"Can't connect to web site: ", u"Timed out connecting to web site.", u"Failed connecting to web site.",
     u"Error connecting to web site: ", false},
    {u"Can't get requested data: ", u"Timed out opening request", u"Failed opening request", u"Error opening request: ",
     false},
    {u"Can't send request: ", u"Timed out sending request", u"Failed sending request", u"Error sending request: ",
     true},
    {u"Can't write requested data: ", u"Timed out writing requested data", u"Failed writing requested data",
     u"Error writing requested data: ", true},
    {u"Can't http end request: ", u"Timed out ending http request", u"Failed ending http request",
     u"Error ending http request: ", false},
    {u"Can't read requested data: ", u"Timed out reading requested data", u"Failed reading requested data",
     u"Error reading requested data: ", true},
};

int WaitTime(DWORD milliseconds) {
  return milliseconds > static_cast<DWORD>(INT_MAX) ? -1 : static_cast<int>(milliseconds);
}

struct ServerAddress {
  String host;
  INTERNET_PORT port;
};

// "host" or "host:port" ("[v6-address]:port" too); the port defaults to 443 or 80.
ServerAddress SplitServer(const String& server, bool secure) {
  ServerAddress address{server, static_cast<INTERNET_PORT>(secure ? 443 : 80)};
  std::u16string_view text = server.View();
  std::size_t colon = text.rfind(u':');
  if (colon == std::u16string_view::npos || colon + 1 == text.size() || colon + 6 < text.size()) return address;
  std::u16string_view host = text.substr(0, colon);
  if (host.find(u':') != std::u16string_view::npos && !(host.front() == u'[' && host.back() == u']')) return address;
  unsigned port = 0;
  for (char16_t unit : text.substr(colon + 1)) {
    if (unit < u'0' || unit > u'9') return address;
    port = port * 10 + (unit - u'0');
  }
  if (port == 0 || port > 65535) return address;
  return {String(host), static_cast<INTERNET_PORT>(port)};
}

} // namespace

std::size_t uploadBlockSize = std::size_t{1} << 20;

// The blocks of one request that a pending call may read or write. Held by the engine and by
// each request handle that received them; the last holder frees them.
struct HttpClientImp::RequestBlocks {
  std::atomic<int> holders{1};
  const char* body = nullptr;
  std::size_t bodySize = 0;
  // A body sent from its upload file: body is the part before the file's bytes, closing the part
  // behind them, and the body passes through the two stages block by block.
  std::uint64_t fileSize = 0;
  std::string closing;
  char* stages[2] = {nullptr, nullptr};
  INTERNET_BUFFERSW sendBlock{};
  INTERNET_BUFFERSA readBlock{};
  ::DWORD written = 0;
  // A reply buffer that is still here when a read ends may be filled by a read that did not finish.
  char* replyBuffer = nullptr;

  ~RequestBlocks() {
    delete[] body;
    delete[] stages[0];
    delete[] stages[1];
    delete[] replyBuffer;
  }

  std::uint64_t BodySize() const noexcept { return bodySize + fileSize + closing.size(); }

  static void Release(RequestBlocks* blocks) noexcept {
    if (blocks && blocks->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete blocks;
  }
};

// What the status callback reaches: the events, the fields it writes and the handles that can
// still call back, with the blocks lent to them. See the head of HttpClientImp.h.
class HttpClientImp::CallbackTarget {
public:
  Event connectedEvent{true};
  Event completedEvent{true};
  Event closedEvent{true};
  std::atomic<HINTERNET> createdHandle{nullptr};
  std::atomic<HINTERNET> closingHandle{nullptr};
  std::atomic<::DWORD> asyncError{0};
  std::atomic<DWORD_PTR> asyncResult{0};

  void Notify(HINTERNET handle, ::DWORD status, const void* info, ::DWORD infoLength);

  // The handle can call back until its HANDLE_CLOSING.
  void Adopt(HINTERNET handle) {
    std::lock_guard<std::mutex> hold(lock);
    AdoptLocked(handle);
  }

  // The handle holds the blocks until its HANDLE_CLOSING.
  void Lend(HINTERNET handle, RequestBlocks* blocks) {
    std::lock_guard<std::mutex> hold(lock);
    for (const auto& loan : loans)
      if (loan.first == handle && loan.second == blocks) return;
    AdoptLocked(handle);
    loans.emplace_back(handle, blocks);
    blocks->holders.fetch_add(1, std::memory_order_relaxed);
  }

  // A call that creates a handle did not finish: its handle may call back at any time, unknown
  // as yet, so the target is never freed.
  void Pin() {
    std::lock_guard<std::mutex> hold(lock);
    pinned = true;
  }

  // The engine is gone: free the target now, or leave that to the last HANDLE_CLOSING.
  void Detach() {
    bool last;
    {
      std::lock_guard<std::mutex> hold(lock);
      detached = true;
      last = liveHandles.empty() && !pinned;
      if (!last) Orphans().Add(this);
    }
    if (last) delete this;
  }

private:
  // Detached targets that still wait for handles to close; reachable, so that leak checkers
  // don't count them.
  struct OrphanList {
    std::mutex lock;
    std::vector<CallbackTarget*> targets;
    void Add(CallbackTarget* target) {
      std::lock_guard<std::mutex> hold(lock);
      targets.push_back(target);
    }
    void Remove(CallbackTarget* target) {
      std::lock_guard<std::mutex> hold(lock);
      targets.erase(std::remove(targets.begin(), targets.end(), target), targets.end());
    }
  };
  static OrphanList& Orphans() {
    static OrphanList* orphans = new OrphanList; // may be used by WinInet's threads at exit
    return *orphans;
  }

  void AdoptLocked(HINTERNET handle) {
    if (handle && std::find(liveHandles.begin(), liveHandles.end(), handle) == liveHandles.end())
      liveHandles.push_back(handle);
  }

  // Returns true when the target is detached and no handle is left.
  bool ForgetLocked(HINTERNET handle) {
    liveHandles.erase(std::remove(liveHandles.begin(), liveHandles.end(), handle), liveHandles.end());
    auto held =
        std::stable_partition(loans.begin(), loans.end(), [handle](const auto& loan) { return loan.first != handle; });
    for (auto loan = held; loan != loans.end(); ++loan) RequestBlocks::Release(loan->second);
    loans.erase(held, loans.end());
    return detached && liveHandles.empty() && !pinned;
  }

  void StoreResult(DWORD_PTR result, ::DWORD error) {
    if (result == 0 && error != 0)
      asyncError.store(error);
    else
      asyncResult.store(result);
  }

  std::mutex lock;
  std::vector<HINTERNET> liveHandles;
  std::vector<std::pair<HINTERNET, RequestBlocks*>> loans;
  bool detached = false;
  bool pinned = false;
};

void HttpClientImp::CallbackTarget::Notify(HINTERNET handle, ::DWORD status, const void* info, ::DWORD infoLength) {
  // The blocks of HANDLE_CREATED and HANDLE_CLOSING may hold only the handle (Wine passes 8
  // bytes), so dwError is read only where dwResult is 0 and the block is long enough.
  DWORD_PTR result = 0;
  ::DWORD error = 0;
  if (info && status != statusConnectedToServer) {
    std::memcpy(&result, info, sizeof result);
    if (result == 0 && infoLength >= sizeof(INTERNET_ASYNC_RESULT))
      error = static_cast<const INTERNET_ASYNC_RESULT*>(info)->dwError;
  }
  bool last = false;
  Event* wake = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock);
    switch (status) {
    case statusConnectedToServer:
      wake = &connectedEvent;
      break;
    case statusHandleCreated:
      createdHandle.store(reinterpret_cast<HINTERNET>(result));
      AdoptLocked(reinterpret_cast<HINTERNET>(result));
      break;
    case statusHandleClosing:
      StoreResult(result, error);
      // Under the lock: once the handle is forgotten, a detaching engine may free the target.
      if (reinterpret_cast<HINTERNET>(result) == closingHandle.load()) closedEvent.Set();
      last = ForgetLocked(handle);
      break;
    case statusRequestComplete:
      StoreResult(result, error);
      wake = &completedEvent;
      break;
    }
    // Set after the lock, which the woken engine takes next, where a live handle of this target
    // keeps it from being freed meanwhile.
    if (wake && !pinned && std::find(liveHandles.begin(), liveHandles.end(), handle) == liveHandles.end()) {
      wake->Set();
      wake = nullptr;
    }
  }
  if (wake) wake->Set();
  if (last) {
    Orphans().Remove(this);
    delete this;
  }
}

void CALLBACK HttpClientImp::StatusCallback(HINTERNET handle, DWORD_PTR context, ::DWORD status, LPVOID info,
                                            ::DWORD infoLength) {
  // The root handle carries no context.
  if (context == 0) return;
  switch (status) {
  case statusConnectedToServer:
  case statusHandleCreated:
  case statusHandleClosing:
  case statusRequestComplete:
    reinterpret_cast<CallbackTarget*>(context)->Notify(handle, status, info, infoLength);
    break;
  default:
    break;
  }
}

HttpClientImpInterface* CreateHttpClientImp(HttpClientBase* owner) { return new HttpClientImp(owner); }

HttpClientImp::HttpClientImp(HttpClientBase* owner)
    : owner(owner), target(new CallbackTarget), boundary(boundaryText) {}

HttpClientImp::~HttpClientImp() {
  ErrorInfo* error = Disconnect();
  delete error;
  RequestBlocks::Release(blocks);
  target->Detach();
}

DWORD_PTR HttpClientImp::Context() const noexcept { return reinterpret_cast<DWORD_PTR>(target); }

int HttpClientImp::WaitFor(Event& event, DWORD milliseconds) {
  SVArray<Event*, Event*> events;
  events.SetCapacityIncrease(1);
  events.Add(&event);
  return engineWait(events, WaitTime(milliseconds));
}

ErrorInfo* HttpClientImp::AwaitCompletion(Step step, ::DWORD code, bool examineAfterFailedWait, bool* stillPending) {
  const StepWords& words = stepWords[static_cast<int>(step)];
  if (code != errorIoPending) return MakeInternetError(words.immediate, code);
  int result = WaitFor(target->completedEvent, owner->requestTimeout);
  // The request's watchdog is due no later than this wait: let it win a tie, so that a request
  // too slow in all ends by its cancel, which completes the call.
  if (result == -1) result = WaitFor(target->completedEvent, watchdogTieGrace);
  ErrorInfo* error = nullptr;
  if (result == -1 || result == -2) {
    if (stillPending) *stillPending = true;
    if (step == Step::OpenRequest) target->Pin();
    error = MakeError(String(result == -1 ? words.timedOut : words.failedWait));
    if (words.cancelsAfterFailedWait) delete CancelRequest();
    if (!examineAfterFailedWait) return error;
  }
  target->completedEvent.Reset();
  ::DWORD failure = target->asyncError.load();
  if (failure == 0) return error;
  delete error;
  if (examineAfterFailedWait) target->asyncError.store(0);
  return MakeInternetError(words.completion, failure);
}

ErrorInfo* HttpClientImp::Connect() {
  if (!winInet.InternetOpenW) return MakeError(String(u"HTTP is not initialised: call HttpClient::InitialiseHttp first"));
  target->connectedEvent.Reset();
  target->completedEvent.Reset();
  target->closedEvent.Reset();
  {
    CritSectionLock hold(fileHandleSection);
    cancelled = false;
  }
  internetHandle = winInet.InternetOpenW(inet::WideArg(owner->agent), openTypePreconfig, nullptr, nullptr, flagAsync);
  if (!internetHandle) return MakeError(String(u"Error opening Internet"));
  auto invalidCallback = reinterpret_cast<INTERNET_STATUS_CALLBACK>(static_cast<std::intptr_t>(-1));
  if (winInet.InternetSetStatusCallbackW(internetHandle, &StatusCallback) == invalidCallback) {
    winInet.InternetCloseHandle(internetHandle);
    internetHandle = nullptr;
    return MakeError(String(u"Error setting callback for Internet"));
  }
  callbackInstalled = true;
  target->asyncError.store(0);
  target->createdHandle.store(nullptr);

  ServerAddress address = SplitServer(owner->server, owner->secure);
  const String& none = GetEmptyString();
  HINTERNET connection = winInet.InternetConnectW(internetHandle, inet::WideArg(address.host), address.port,
                                                  inet::WideArg(none), inet::WideArg(none), serviceHttp, 0, Context());
  if (connection) {
    httpHandle = connection;
    target->Adopt(connection);
    return nullptr;
  }
  ::DWORD code = QOR::GetLastError();
  const StepWords& words = stepWords[static_cast<int>(Step::Connect)];
  if (code != errorIoPending) return FailConnect(MakeInternetError(words.immediate, code));

  SVArray<Event*, Event*> events;
  events.SetCapacityIncrease(2);
  events.Add(&target->connectedEvent);
  events.Add(&target->completedEvent);
  int result = engineWait(events, WaitTime(owner->connectTimeout));
  httpHandle = target->createdHandle.load();
  target->Adopt(httpHandle);
  if (result == -1 || result == -2) target->Pin();
  if (result == -2) return FailConnect(MakeError(String(words.failedWait)));
  if (result == -1) return FailConnect(MakeError(String(words.timedOut)));
  target->connectedEvent.Reset();
  target->completedEvent.Reset();
  if (::DWORD failure = target->asyncError.load()) return FailConnect(MakeInternetError(words.completion, failure));
  return nullptr;
}

// Closes the session after a failed Connect; the connection handle keeps its value.
ErrorInfo* HttpClientImp::FailConnect(ErrorInfo* error) {
  winInet.InternetSetStatusCallbackW(internetHandle, nullptr);
  callbackInstalled = false;
  winInet.InternetCloseHandle(internetHandle);
  internetHandle = nullptr;
  return error;
}

ErrorInfo* HttpClientImp::CloseInternetHandle(HINTERNET& handle, const char16_t* name) {
  if (!handle) return nullptr;
  target->closingHandle.store(handle);
  target->closedEvent.Reset();
  target->asyncError.store(0);
  if (!winInet.InternetCloseHandle(handle)) {
    ::DWORD code = QOR::GetLastError();
    // A handle that WinInet no longer knows still gets the wait for its notification.
    if (code != errorInvalidHandle) return MakeInternetError(String(u"Error closing ") + name, code);
  }
  if (WaitFor(target->closedEvent, owner->connectTimeout) == -1)
    return MakeError(String(u"Timed out trying to close ") + name);
  handle = nullptr;
  if (::DWORD failure = target->asyncError.load()) return MakeInternetError(String(u"Error closing ") + name, failure);
  return nullptr;
}

ErrorInfo* HttpClientImp::CloseRequest() {
  CritSectionLock hold(fileHandleSection);
  ErrorInfo* error = CloseInternetHandle(fileHandle, u"File handle");
  fileHandle = nullptr;
  return error;
}

ErrorInfo* HttpClientImp::CancelRequest() {
  CritSectionLock hold(fileHandleSection);
  cancelled = true;
  ErrorInfo* error = CloseInternetHandle(fileHandle, u"File handle");
  fileHandle = nullptr;
  return error;
}

bool HttpClientImp::RequestCancelled() {
  CritSectionLock hold(fileHandleSection);
  return cancelled;
}

ErrorInfo* HttpClientImp::Disconnect() {
  ErrorInfo* error = CloseRequest();
  error = SafeConcat(error, CloseInternetHandle(httpHandle, u"HTTP handle"));
  httpHandle = nullptr;
  // The callback goes first: the root handle has no context for it.
  if (callbackInstalled) {
    winInet.InternetSetStatusCallbackW(internetHandle, nullptr);
    callbackInstalled = false;
  }
  if (internetHandle) {
    winInet.InternetCloseHandle(internetHandle);
    internetHandle = nullptr;
  }
  return error;
}

HttpClientImp::RequestBlocks& HttpClientImp::Blocks() {
  if (!blocks) blocks = new RequestBlocks;
  return *blocks;
}

void HttpClientImp::RenewBlocks() {
  RequestBlocks::Release(blocks);
  blocks = nullptr;
  blocks = new RequestBlocks;
}

void HttpClientImp::LendBlocks() {
  if (fileHandle) target->Lend(fileHandle, &Blocks());
}

ErrorInfo* HttpClientImp::FetchRequestBuffer() {
  RenewBlocks();
  uploadFile.reset();
  offeringUpload = true;
  ErrorInfo* error = owner->GetRequestBuffer(boundary, blocks->body, blocks->bodySize);
  offeringUpload = false;
  if (uploadFile && (error || blocks->body != uploadHead || blocks->bodySize != uploadHeadSize)) {
    // A derived GetRequestBuffer took HttpClient's block and returned another: the file's bytes
    // that belong behind the first would go behind a block they don't belong to.
    uploadFile.reset();
    blocks->fileSize = 0;
    blocks->closing.clear();
    if (!error) error = MakeError(String(uploadBodyChanged));
  }
  return error;
}

bool HttpClientImp::TakesUploadFile(std::uint64_t fileSize) const noexcept {
  return offeringUpload && fileSize > uploadBlockSize;
}

void HttpClientImp::SendFromFile(const char* head, std::size_t headSize, std::unique_ptr<ReadableFile> file,
                                 std::uint64_t fileSize, std::string closing) {
  offeringUpload = false;
  uploadFile = std::move(file);
  uploadHead = head;
  uploadHeadSize = headSize;
  RequestBlocks& request = Blocks();
  request.fileSize = fileSize;
  request.closing = std::move(closing);
}

ErrorInfo* HttpClientImp::SendRequest(String url) {
  {
    CritSectionLock hold(fileHandleSection);
    cancelled = false;
  }
  // A body from a derived client's GetRequestBuffer is held to the same limit, before anything goes out.
  ErrorInfo* error = Blocks().BodySize() > largestTransfer ? MakeError(String(bodyTooLarge)) : nullptr;
  if (!error) error = OpenRequest(url);
  if (!error) error = SendRequestHeaders();
  if (!error) error = WriteRequestData();
  uploadFile.reset();
  ErrorInfo* endError = EndRequest();
  if (error) {
    delete endError;
    return error;
  }
  return endError;
}

ErrorInfo* HttpClientImp::OpenRequest(const String& url) {
  target->asyncError.store(0);
  target->createdHandle.store(nullptr);
  target->completedEvent.Reset();
  ::DWORD flags = owner->secure ? requestFlags | secureRequestFlags : requestFlags;
  char* objectName = ConvertToMultibyte(url.Data(), CodePageSystem, nullptr);
  HINTERNET request =
      winInet.HttpOpenRequestA(httpHandle, "POST", objectName, nullptr, referrer, acceptTypes, flags, Context());
  ::DWORD code = request ? 0 : QOR::GetLastError();
  delete[] objectName;
  if (!request) {
    if (ErrorInfo* error = AwaitCompletion(Step::OpenRequest, code)) return error;
    request = reinterpret_cast<HINTERNET>(target->asyncResult.load());
  }
  // A cancellation between the call and the store: the handle is not kept.
  if (RequestCancelled()) return MakeError(String(u"Request cancelled"));
  CritSectionLock hold(fileHandleSection);
  fileHandle = request;
  target->Adopt(request);
  return nullptr;
}

ErrorInfo* HttpClientImp::SendRequestHeaders() {
  String line = String(u"Content-Type: multipart/form-data; boundary=") + boundary;
  RequestBlocks& request = Blocks();
  BOOL sent;
  ::DWORD code = 0;
  {
    CritSectionLock hold(fileHandleSection);
    if (!winInet.HttpAddRequestHeadersW(fileHandle, inet::WideArg(line), lengthToNul, addReqReplace)) {
      // Only a missing header is worth a second try; other failures of REPLACE go unreported.
      if (QOR::GetLastError() == errorHttpHeaderNotFound &&
          !winInet.HttpAddRequestHeadersW(fileHandle, inet::WideArg(line), lengthToNul, addReqAdd)) {
        return MakeInternetError(String(u"Error adding request headers: "), QOR::GetLastError());
      }
    }
    request.sendBlock = INTERNET_BUFFERSW{};
    request.sendBlock.dwStructSize = sizeof(INTERNET_BUFFERSW);
    request.sendBlock.dwBufferTotal = static_cast<::DWORD>(request.BodySize());
    LendBlocks();
    sent = winInet.HttpSendRequestExW(fileHandle, &request.sendBlock, nullptr, hsrInitiate, Context());
    if (!sent) code = QOR::GetLastError();
  }
  return sent ? nullptr : AwaitCompletion(Step::SendRequestHeaders, code);
}

// A body in memory goes out from its block. A body sent from its upload file goes out through
// the two stages: while WinInet takes one, the next block of the body is read into the other.
ErrorInfo* HttpClientImp::WriteRequestData() {
  RequestBlocks& request = Blocks();
  const std::uint64_t total = request.BodySize();
  const bool staged = uploadFile != nullptr;
  std::size_t chunk = owner->transferBlockSize;
  if (owner->progressTotal != 0) {
    // As many chunks as progress steps, so that each step sees bytes move.
    auto chunks = static_cast<std::size_t>(static_cast<double>(std::max(owner->progressDuration, 0)) /
                                                   std::max(owner->progressInterval, 1));
    chunk = static_cast<std::size_t>(total / std::max<std::size_t>(chunks, 1));
  }
  chunk = std::max<std::size_t>(chunk, 1);
  const char* position = request.body;
  std::size_t available = request.bodySize;
  int stage = 0;
  std::size_t ready = 0; // bytes read ahead into the other stage
  if (staged) {
    if (ErrorInfo* error = FillStage(stage, 0, available)) return AbandonBody(error);
    position = request.stages[stage];
  }
  std::uint64_t written = 0;
  ErrorInfo* readError = nullptr; // of the read ahead, reported when its stage is due
  for (;;) {
    std::size_t offered = std::min(available, chunk);
    BOOL done;
    ::DWORD code = 0;
    {
      CritSectionLock hold(fileHandleSection);
      request.written = 0;
      LendBlocks();
      done = winInet.InternetWriteFile(fileHandle, position, static_cast<::DWORD>(offered), &request.written);
      if (!done) code = QOR::GetLastError();
    }
    if (!done) {
      if (staged && code == errorIoPending && ready == 0 && !readError && written + available < total)
        readError = FillStage(1 - stage, written + available, ready);
      if (ErrorInfo* error = AwaitCompletion(Step::WriteRequestData, code)) {
        delete readError;
        return error;
      }
    }
    std::size_t count = request.written;
    written += count;
    if (owner->progressTotal != 0) owner->UpdateBytesTransferred(written, total);
    if (written >= total) return nullptr;
    position += count;
    available -= count;
    // After a short write the rest of the stage goes first.
    if (available != 0) continue;
    if (readError) return AbandonBody(readError);
    stage = 1 - stage;
    if (ready == 0) {
      if (ErrorInfo* error = FillStage(stage, written, ready)) return AbandonBody(error);
    }
    position = request.stages[stage];
    available = std::exchange(ready, 0);
  }
}

// Copies the body from offset from into the stage, up to a block, reading the file's bytes from
// the file, which is read in order.
ErrorInfo* HttpClientImp::FillStage(int stage, std::uint64_t from, std::size_t& filled) {
  RequestBlocks& request = *blocks;
  if (!request.stages[stage]) request.stages[stage] = new char[uploadBlockSize];
  char* into = request.stages[stage];
  const std::uint64_t fileEnd = request.bodySize + request.fileSize;
  const std::uint64_t end = std::min<std::uint64_t>(from + uploadBlockSize, request.BodySize());
  filled = 0;
  if (from < request.bodySize) {
    auto count = static_cast<std::size_t>(std::min<std::uint64_t>(request.bodySize, end) - from);
    std::memcpy(into, request.body + from, count);
    filled += count;
    from += count;
  }
  if (from < fileEnd && from < end) {
    auto count = static_cast<std::size_t>(std::min(fileEnd, end) - from);
    std::size_t got = 0;
    if (ErrorInfo* error = uploadFile->ReadFile(into + filled, count, &got)) return error;
    filled += got;
    from += got;
    // Its last bytes read, the file must end there: the closing behind them has not gone out yet.
    std::size_t more = 0;
    if (got == count && from == fileEnd) {
      char beyond;
      if (ErrorInfo* error = uploadFile->ReadFile(&beyond, 1, &more)) return error;
    }
    if (got != count || more != 0)
      return MakeError(String(uploadFileChanged) + uploadFile->Path() + u"'");
  }
  if (from < end) {
    auto count = static_cast<std::size_t>(end - from);
    std::memcpy(into + filled, request.closing.data() + (from - fileEnd), count);
    filled += count;
  }
  return nullptr;
}

// A body cut short must not end as a request: its handle is closed, so that the server sees the
// connection end before the announced length, and the end of the request calls nothing.
ErrorInfo* HttpClientImp::AbandonBody(ErrorInfo* error) {
  delete CancelRequest();
  return error;
}

ErrorInfo* HttpClientImp::EndRequest() {
  target->asyncError.store(0);
  target->completedEvent.Reset();
  BOOL ended;
  ::DWORD code = 0;
  {
    CritSectionLock hold(fileHandleSection);
    if (!fileHandle) return nullptr;
    ended = winInet.HttpEndRequestW(fileHandle, nullptr, 0, Context());
    if (!ended) code = QOR::GetLastError();
  }
  return ended ? nullptr : AwaitCompletion(Step::EndRequest, code);
}

ErrorInfo* HttpClientImp::ReadToEnd(DWORD blockSize, std::size_t spare, bool examineAfterFailedWait,
                                    std::size_t& total) {
  // A reply buffer left by a read that never finished stays with the handle that may fill it.
  if (Blocks().replyBuffer) RenewBlocks();
  RequestBlocks& request = *blocks;
  std::size_t capacity = blockSize;
  std::size_t allocated = capacity + spare;
  request.replyBuffer = new char[allocated];
  total = 0;
  request.readBlock = INTERNET_BUFFERSA{};
  request.readBlock.dwStructSize = sizeof(INTERNET_BUFFERSA);
  for (;;) {
    request.readBlock.lpvBuffer = request.replyBuffer + total;
    // At the largest reply the buffer is full: one byte into its spare room tells whether more comes.
    request.readBlock.dwBufferLength = static_cast<::DWORD>(total == largestTransfer ? 1 : capacity - total);
    BOOL done;
    ::DWORD code = 0;
    {
      CritSectionLock hold(fileHandleSection);
      LendBlocks();
      done = winInet.InternetReadFileExA(fileHandle, &request.readBlock, irfAsync, Context());
      if (!done) code = QOR::GetLastError();
    }
    if (!done) {
      bool stillPending = false;
      ErrorInfo* error = AwaitCompletion(Step::ReadReply, code, examineAfterFailedWait, &stillPending);
      if (error) {
        if (!stillPending) {
          delete[] request.replyBuffer;
          request.replyBuffer = nullptr;
        }
        return error;
      }
    }
    std::size_t count = request.readBlock.dwBufferLength;
    if (count == 0) return nullptr;
    total += count;
    if (total > largestTransfer) {
      delete[] request.replyBuffer;
      request.replyBuffer = nullptr;
      return MakeError(String(replyTooLarge));
    }
    if (total >= capacity && capacity < largestTransfer) {
      capacity = std::min<std::size_t>(capacity + blockSize, largestTransfer);
      // The reads still offer one block at a time, but the room behind them doubles: a reply
      // of n blocks costs a few copies, not n copies of everything read so far.
      if (capacity + spare > allocated) {
        allocated = std::max(capacity + spare, std::min(2 * allocated, largestTransfer + spare));
        char* larger = new char[allocated];
        std::memcpy(larger, request.replyBuffer, total);
        delete[] request.replyBuffer;
        request.replyBuffer = larger;
      }
    }
  }
}

ErrorInfo* HttpClientImp::ReadReply(String& reply) {
  std::size_t total = 0;
  if (ErrorInfo* error = ReadToEnd(owner->transferBlockSize, 2, false, total)) return error;
  char* text = std::exchange(blocks->replyBuffer, nullptr);
  text[total] = 0;
  text[total + 1] = 0;
  char16_t* wide = ConvertFromMultibyte(text, CodePageUtf8, nullptr);
  delete[] text;
  reply = String(wide);
  delete[] wide;
  return nullptr;
}

ErrorInfo* HttpClientImp::ReadBase64Reply(DWORD blockSize, char*& buffer, std::size_t& length) {
  std::size_t total = 0;
  if (ErrorInfo* error = ReadToEnd(blockSize, 1, true, total)) return error;
  char* text = std::exchange(blocks->replyBuffer, nullptr);
  text[total] = 0;
  char* decoded = new char[CalculateRequiredDecodeOutputBufferSize(text)];
  length = Base64DecodeBuffer(text, decoded);
  buffer = decoded;
  delete[] text;
  return nullptr;
}

} // namespace QOR
