#include "RequestHandle.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <poll.h>

namespace QOR::inet {

namespace {

// Reply bytes held for the next read before libcurl is paused; with one libcurl buffer on top,
// this bounds what the layer keeps of a reply.
constexpr std::size_t replyQueueLimit = 1024 * 1024;
constexpr std::chrono::microseconds receivingReportDelay(2000);
// How often and how long a writer waits for a full socket before its write pends.
constexpr int socketFullRounds = 4;
constexpr std::chrono::milliseconds socketFullWait(1);

// The object name as it goes into the request line: with a leading "/", and with spaces and
// bytes outside printable ASCII percent-encoded.
std::string RequestTarget(const std::string& object) {
  static const char hex[] = "0123456789ABCDEF";
  std::string target;
  if (object.empty() || object.front() != '/') target += '/';
  for (unsigned char c : object) {
    if (c <= 0x20 || c >= 0x7F) {
      target += '%';
      target += hex[c >> 4];
      target += hex[c & 0x0F];
    } else {
      target += static_cast<char>(c);
    }
  }
  return target;
}

} // namespace

RequestHandle::RequestHandle(std::shared_ptr<ConnectHandle> connection, std::string verb, std::string object,
                             std::string referrer, std::string accept, DWORD flags, DWORD_PTR context)
    : Handle(Kind::Request, connection, context), connection(connection),
      verb(verb.empty() ? "GET" : std::move(verb)), target(RequestTarget(object)), flags(flags) {
  if (!referrer.empty()) headers.Set("Referer", referrer);
  if (!accept.empty()) headers.Set("Accept", accept);
}

RequestHandle::~RequestHandle() = default;

// ---- entry points (caller's thread) ----

DWORD RequestHandle::AddHeaders(std::string_view lines, DWORD modifiers) {
  std::lock_guard<std::mutex> guard(GetSession().Lock());
  if (IsClosed()) return ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
  if (stage != Stage::Fresh) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  return headers.Apply(lines, modifiers);
}

DWORD RequestHandle::Send(DWORD bodySize) {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
    if (stage != Stage::Fresh) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    stage = Stage::Connecting;
    op = Op::Send;
    total = bodySize;
  }
  PostSelf(&RequestHandle::Begin);
  return ERROR_IO_PENDING;
}

DWORD RequestHandle::Write(const void* data, DWORD size, DWORD* written) {
  void (RequestHandle::*next)() = &RequestHandle::ResumeUpload;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return ERROR_INVALID_HANDLE;
    if (stage != Stage::Body || op != Op::None) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    if (failure) {
      next = &RequestHandle::ReportFailure;
    } else {
      if (lentTotal + size > total) return ERROR_INVALID_PARAMETER;
      // Nothing to lend, or the server has answered in full already and takes no more.
      if (size == 0 || replyDone) {
        *written = size;
        return 0;
      }
      lentTotal += size;
    }
    op = Op::Write;
    lentData = static_cast<const char*>(data);
    lentSize = size;
    lentTaken = 0;
    lentWritten = written;
    if (next == &RequestHandle::ResumeUpload) {
      // From a status callback the libcurl lock is taken already: the loop does the work.
      if (Session::HoldingCurl()) {
        if (!uploadPaused) return ERROR_IO_PENDING; // libcurl asks for the bytes by itself
      } else {
        next = nullptr;
      }
    }
  }
  if (!next) return DriveUpload();
  PostSelf(next);
  return ERROR_IO_PENDING;
}

bool RequestHandle::Pending(Op which) {
  std::lock_guard<std::mutex> guard(GetSession().Lock());
  return op == which;
}

DWORD RequestHandle::DriveUpload() {
  // A socket that is full for a moment is worth a short wait (outside the libcurl lock): a
  // pending write costs two thread hand-offs. After that the write pends and the loop goes on.
  for (int round = 0;; ++round) {
    curl_socket_t socket = CURL_SOCKET_BAD;
    switch (HandOver(socket)) {
    case HandOverResult::Taken: {
      // Done inside the call, as WinInet's own writes are.
      DWORD taken = 0;
      {
        std::lock_guard<std::mutex> guard(GetSession().Lock());
        taken = lentSize;
      }
      Notify(INTERNET_STATUS_SENDING_REQUEST, nullptr, 0);
      Notify(INTERNET_STATUS_REQUEST_SENT, &taken, sizeof taken);
      return 0;
    }
    case HandOverResult::LoopsBusiness:
      return ERROR_IO_PENDING;
    case HandOverResult::SocketFull:
      break;
    }
    if (round == socketFullRounds || socket == CURL_SOCKET_BAD) return ERROR_IO_PENDING;
    pollfd writable{socket, POLLOUT, 0};
    ::poll(&writable, 1, static_cast<int>(socketFullWait.count()));
  }
}

RequestHandle::HandOverResult RequestHandle::HandOver(curl_socket_t& socket) {
  Session::CurlGuard guard(GetSession());
  bool paused = false;
  {
    std::lock_guard<std::mutex> lockGuard(GetSession().Lock());
    // Taken by the loop meanwhile, or closed: the loop reports the completion.
    if (op != Op::Write || !transfer || IsClosed()) return HandOverResult::LoopsBusiness;
    paused = uploadPaused;
    uploadPaused = false;
    uploadByCaller = true;
  }
  if (paused) {
    transfer->ResumeUpload();
    GetSession().RunDue();
  }
  // libcurl may be waiting for its socket to turn writable before it asks for data; if the
  // socket is full, it takes nothing and waits on.
  if (!paused || Pending(Op::Write)) transfer->SendNow();
  socket = transfer ? transfer->Socket() : CURL_SOCKET_BAD;
  bool taken = false;
  {
    std::lock_guard<std::mutex> lockGuard(GetSession().Lock());
    uploadByCaller = false;
    taken = op != Op::Write;
  }
  if (taken && transfer) transfer->Uncork();
  return taken ? HandOverResult::Taken : HandOverResult::SocketFull;
}

DWORD RequestHandle::End() {
  void (RequestHandle::*next)() = &RequestHandle::BeginEnd;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
    if (op != Op::None || stage == Stage::Fresh || stage == Stage::Ending || stage == Stage::Reply)
      return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    // A failure after the reply headers belongs to the reads; before them, to this call.
    if (failure && !headersDone) {
      next = &RequestHandle::ReportFailure;
    } else if (lentTotal < total && !replyDone) {
      return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    }
    op = Op::End;
    stage = Stage::Ending;
  }
  if (next == &RequestHandle::BeginEnd) {
    // The loop wakes for the reply soon; RECEIVING_RESPONSE can wait for that wake-up (a
    // couple of milliseconds at most).
    auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
    GetSession().PostWithin([self] { self->BeginEnd(); }, receivingReportDelay);
    return ERROR_IO_PENDING;
  }
  PostSelf(next);
  return ERROR_IO_PENDING;
}

DWORD RequestHandle::Read(INTERNET_BUFFERSA* buffers) {
  void (RequestHandle::*next)() = &RequestHandle::ResumeReply;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return ERROR_INVALID_HANDLE;
    if (stage != Stage::Reply || op != Op::None) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    char* out = static_cast<char*>(buffers->lpvBuffer);
    DWORD capacity = buffers->dwBufferLength;
    if (!out && capacity > 0) return ERROR_INVALID_PARAMETER;
    DWORD count = static_cast<DWORD>(replyBytes.Take(out, capacity));
    bool resume = replyPaused && replyBytes.Size() < replyQueueLimit;
    // At once when the buffer is full, at the end of the body, or with data before a failure.
    if (count == capacity || replyDone || (failure && count > 0)) {
      buffers->dwBufferLength = count;
      if (!resume) return 0;
      next = nullptr;
    } else {
      op = Op::Read;
      readBuffers = buffers;
      readData = out;
      readCapacity = capacity;
      readCount = count;
      if (failure) next = &RequestHandle::ReportFailure;
    }
  }
  if (!next) {
    PostSelf(&RequestHandle::ResumeReply);
    return 0;
  }
  PostSelf(next);
  return ERROR_IO_PENDING;
}

// ---- closing ----

bool RequestHandle::Busy() const { return Handle::Busy() || op != Op::None; }

void RequestHandle::CloseDeferred() { PostSelf(&RequestHandle::Cancel); }

void RequestHandle::Closed() {
  bool running = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    running = transferRunning;
  }
  // A transfer still under way is stopped at once; a finished one is tidied up at leisure.
  auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
  auto dispose = [self] { self->Dispose(); };
  if (running) {
    GetSession().Post(dispose);
  } else {
    GetSession().PostQuietly(dispose);
  }
}

void RequestHandle::PostSelf(void (RequestHandle::*command)()) {
  auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
  GetSession().Post([self, command] { ((*self).*command)(); });
}

// ---- posted commands (loop thread) ----

void RequestHandle::Begin() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed() || op != Op::Send) return;
  }
  Transfer::Plan plan = MakePlan();
  transfer = std::make_unique<Transfer>(GetSession(), *this);
  if (!connection->resolved) {
    const std::u16string& name = connection->HostName();
    Notify(INTERNET_STATUS_RESOLVING_NAME, name.c_str(), static_cast<DWORD>((name.size() + 1) * sizeof(char16_t)));
  }
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    transferRunning = true;
  }
  if (!transfer->Start(plan, std::static_pointer_cast<RequestHandle>(shared_from_this())))
    TransferDone(CURLE_FAILED_INIT);
}

Transfer::Plan RequestHandle::MakePlan() {
  Transfer::Plan plan;
  const Session::Settings& settings = GetSession().GetSettings();
  plan.secure = (flags & INTERNET_FLAG_SECURE) != 0;
  plan.verifyName = (flags & INTERNET_FLAG_IGNORE_CERT_CN_INVALID) == 0;
  plan.verb = verb;
  plan.url = (plan.secure ? "https://" : "http://") + connection->UrlHost() + ":" +
             std::to_string(connection->PortFor(plan.secure)) + target;
  plan.connectTimeoutMs = static_cast<long>(ConnectTimeout());
  plan.accessType = settings.accessType;
  plan.proxy = settings.proxy;
  plan.bypass = settings.bypass;

  std::size_t bytes = verb.size() + 1 + target.size() + sizeof(" HTTP/1.1\r\n") - 1 + 2;
  auto addLine = [&plan, &bytes](std::string_view name, std::string_view value) {
    std::string line;
    line.reserve(name.size() + 2 + value.size());
    line.append(name);
    // libcurl reads "Name:" as "leave this header out" and "Name;" as "send it empty".
    if (value.empty()) {
      line += ';';
    } else {
      line += ": ";
      line.append(value);
    }
    plan.headerLines.push_back(std::move(line));
    bytes += name.size() + 2 + value.size() + 2;
  };
  // libcurl writes a Host header of the list right after the request line; an empty one first
  // stops that, and ours then goes out where WinInet puts it.
  plan.headerLines.emplace_back("Host:");
  bool hasHost, hasAgent, hasCacheControl, hasPragma, hasConnection, hasAccept, hasType;
  {
    // The request's own headers first, in their order (they no longer change once sent), then
    // the ones WinInet adds when missing. A Content-Length of the request's own gives way to
    // the real one, in its place.
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    plan.bodySize = total;
    plan.hasBody = !(verb == "HEAD" || (verb == "GET" && plan.bodySize == 0));
    std::string length = plan.hasBody ? std::to_string(plan.bodySize) : std::string();
    const std::string* ownLength = plan.hasBody ? headers.Find("Content-Length") : nullptr;
    plan.headerLines.reserve(headers.Fields().size() + 10);
    for (const HeaderList::Field& field : headers.Fields())
      addLine(field.name, &field.value == ownLength ? std::string_view(length) : std::string_view(field.value));
    hasHost = headers.Find("Host");
    hasAgent = headers.Find("User-Agent");
    hasCacheControl = headers.Find("Cache-Control");
    hasPragma = headers.Find("Pragma");
    hasConnection = headers.Find("Connection");
    hasAccept = headers.Find("Accept");
    hasType = headers.Find("Content-Type");
    if (!hasHost) addLine("Host", connection->HostHeader(plan.secure));
    if (plan.hasBody && !ownLength) addLine("Content-Length", length);
  }
  if (!settings.agent.empty() && !hasAgent) addLine("User-Agent", settings.agent);
  if ((flags & INTERNET_FLAG_RELOAD) && !hasCacheControl) addLine("Cache-Control", "no-cache");
  if ((flags & INTERNET_FLAG_PRAGMA_NOCACHE) && !hasPragma) addLine("Pragma", "no-cache");
  if ((flags & INTERNET_FLAG_KEEP_CONNECTION) && !hasConnection) addLine("Connection", "Keep-Alive");
  // Headers libcurl would add of its own accord.
  plan.headerLines.emplace_back("Expect:");
  if (!hasAccept) plan.headerLines.emplace_back("Accept:");
  if (plan.hasBody && !hasType) plan.headerLines.emplace_back("Content-Type:");
  headBytes = static_cast<DWORD>(bytes);
  return plan;
}

void RequestHandle::ResumeUpload() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (!uploadPaused) return;
    uploadPaused = false;
  }
  if (transfer) transfer->ResumeUpload();
}

void RequestHandle::BeginEnd() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (op != Op::End) return;
  }
  Notify(INTERNET_STATUS_RECEIVING_RESPONSE, nullptr, 0);
  bool ready = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    receivingReported = true;
    ready = headersDone && op == Op::End;
  }
  if (ready) CompleteEnd();
}

void RequestHandle::ResumeReply() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (!replyPaused || (op != Op::Read && replyBytes.Size() >= replyQueueLimit)) return;
    replyPaused = false;
  }
  if (transfer) transfer->ResumeReply();
}

void RequestHandle::ReportFailure() {
  DWORD code = 0;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (op == Op::None) return;
    code = failureReported ? ERROR_INTERNET_OPERATION_CANCELLED : failure;
  }
  Complete(0, code, [this] {
    op = Op::None;
    failureReported = true;
  });
}

void RequestHandle::Cancel() {
  if (transfer) transfer->Detach();
  bool pending = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    pending = op != Op::None;
  }
  if (!pending) {
    FinishClose();
    return;
  }
  Complete(0, ERROR_INTERNET_OPERATION_CANCELLED, [this] {
    op = Op::None;
    failureReported = true;
  });
}

void RequestHandle::Dispose() {
  transfer.reset();
  std::lock_guard<std::mutex> guard(GetSession().Lock());
  replyBytes.Clear();
}

void RequestHandle::DropTransfer() { transfer.reset(); }

// ---- transfer events (under the libcurl lock) ----

void RequestHandle::OnLoop(void (RequestHandle::*report)()) {
  auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
  GetSession().AfterPerform([self, report] { ((*self).*report)(); });
}

void RequestHandle::SocketOpening(const std::string& address) {
  peerAddress = address;
  // A caller handing over data may meet a reconnect; its reports still come from the loop.
  if (!GetSession().OnLoopThread()) {
    OnLoop(&RequestHandle::ReportSocketOpening);
    return;
  }
  ReportSocketOpening();
}

void RequestHandle::ReportSocketOpening() {
  const std::string& address = peerAddress;
  DWORD length = static_cast<DWORD>(address.size() + 1);
  if (!connection->resolved) {
    connection->resolved = true;
    Notify(INTERNET_STATUS_NAME_RESOLVED, address.c_str(), length);
  }
  Notify(INTERNET_STATUS_CONNECTING_TO_SERVER, address.c_str(), length);
  freshConnection = true;
}

void RequestHandle::Connected() {
  if (!GetSession().OnLoopThread()) {
    OnLoop(&RequestHandle::Connected);
    return;
  }
  if (!freshConnection) return;
  freshConnection = false;
  Notify(INTERNET_STATUS_CONNECTED_TO_SERVER, peerAddress.c_str(), static_cast<DWORD>(peerAddress.size() + 1));
}

void RequestHandle::RequestReady() {
  if (!GetSession().OnLoopThread()) {
    OnLoop(&RequestHandle::RequestReady);
    return;
  }
  Connected();
  // libcurl may go on to a fresh connection when a pooled one turns out dead before anything
  // was sent: that is silent, as it is in WinInet.
  if (requestSent) return;
  requestSent = true;
  // With a body to come, the send completes when libcurl has sent the head and asks for the
  // body: the upload is paused then, and the first write hands its bytes over at once.
  bool bodyFollows = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    bodyFollows = total > 0;
  }
  if (!bodyFollows) CompleteSend();
}

void RequestHandle::CompleteSend() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (op != Op::Send || sendReported) return;
    sendReported = true;
  }
  auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
  GetSession().AfterUnlock([self, bytes = headBytes] {
    if (!self->Pending(Op::Send)) return; // failed or cancelled meanwhile
    self->Notify(INTERNET_STATUS_SENDING_REQUEST, nullptr, 0);
    self->Notify(INTERNET_STATUS_REQUEST_SENT, &bytes, sizeof bytes);
    self->Complete(1, 0, [&self] {
      if (self->op != Op::Send) return;
      self->op = Op::None;
      self->stage = Stage::Body;
    });
  });
}

std::size_t RequestHandle::Upload(char* buffer, std::size_t size) {
  std::size_t taken = 0;
  DWORD finished = 0;
  bool sendCompletes = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return CURL_READFUNC_ABORT;
    if (op != Op::Write || lentTaken == lentSize) {
      uploadPaused = true;
      sendCompletes = op == Op::Send && requestSent;
    }
  }
  if (sendCompletes) {
    // The head is out and libcurl wants the body (see RequestReady); reported from the loop.
    if (GetSession().OnLoopThread()) {
      CompleteSend();
    } else {
      OnLoop(&RequestHandle::CompleteSend);
    }
  }
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (uploadPaused) return CURL_READFUNC_PAUSE;
    taken = std::min<std::size_t>(size, lentSize - lentTaken);
    std::memcpy(buffer, lentData + lentTaken, taken);
    lentTaken += static_cast<DWORD>(taken);
    if (lentTaken == lentSize) finished = lentSize;
    // Handed over by the writer itself: its call returns TRUE and reports.
    if (finished && uploadByCaller) {
      *lentWritten = finished;
      op = Op::None;
      lentData = nullptr;
      return taken;
    }
  }
  if (finished) {
    // libcurl sends what it took after this returns.
    auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
    GetSession().AfterPerform([self] {
      if (self->transfer) self->transfer->Uncork();
    });
    Notify(INTERNET_STATUS_SENDING_REQUEST, nullptr, 0);
    Notify(INTERNET_STATUS_REQUEST_SENT, &finished, sizeof finished);
    Complete(1, 0, [this, finished] {
      if (op != Op::Write) return;
      if (!IsClosed()) *lentWritten = finished;
      op = Op::None;
      lentData = nullptr;
    });
  }
  return taken;
}

void RequestHandle::HeaderLine(std::string_view line) {
  if (line.substr(0, 5) == "HTTP/") {
    std::string_view status = line;
    while (!status.empty() && (status.back() == '\r' || status.back() == '\n')) status.remove_suffix(1);
    // WinInet reports the status line's length with its terminating NUL.
    statusLineSize = static_cast<DWORD>(status.size() + 1);
    std::size_t space = status.find(' ');
    interimResponse = space != std::string_view::npos && status.size() > space + 1 && status[space + 1] == '1';
    return;
  }
  if (line != "\r\n" && line != "\n") return;
  if (interimResponse) {
    interimResponse = false;
    return;
  }
  // A server may answer before it has the body; libcurl then asks for none.
  CompleteSend();
  bool ready = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    headersDone = true;
    // Before RECEIVING_RESPONSE has gone out, BeginEnd completes the call once it has.
    ready = op == Op::End && receivingReported;
  }
  // Reported once libcurl has passed on the body bytes that came with the headers, so that a
  // read right after finds them, as it would in WinInet.
  if (ready) {
    auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
    GetSession().AfterPerform([self] { self->CompleteEnd(); });
  }
}

std::size_t RequestHandle::Body(const char* data, std::size_t size) {
  bool filled = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return size; // nobody reads any more
    if (op == Op::Read) {
      std::size_t direct = std::min<std::size_t>(size, readCapacity - readCount);
      std::memcpy(readData + readCount, data, direct);
      readCount += static_cast<DWORD>(direct);
      replyBytes.Append(data + direct, size - direct);
      filled = readCount == readCapacity;
    } else if (replyBytes.Size() >= replyQueueLimit) {
      replyPaused = true;
      return CURL_WRITEFUNC_PAUSE;
    } else {
      replyBytes.Append(data, size);
    }
  }
  if (filled) CompleteRead();
  return size;
}

void RequestHandle::CompleteEnd() {
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (op != Op::End || endReported) return;
    endReported = true;
  }
  auto self = std::static_pointer_cast<RequestHandle>(shared_from_this());
  GetSession().AfterUnlock([self, size = statusLineSize] {
    if (!self->Pending(Op::End)) return; // failed or cancelled meanwhile
    self->Notify(INTERNET_STATUS_RESPONSE_RECEIVED, &size, sizeof size);
    self->Complete(1, 0, [&self] {
      if (self->op != Op::End) return;
      self->op = Op::None;
      self->stage = Stage::Reply;
    });
  });
}

void RequestHandle::CompleteRead() {
  DWORD count = 0;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    count = readCount;
  }
  Notify(INTERNET_STATUS_RESPONSE_RECEIVED, &count, sizeof count);
  Complete(1, 0, [this, count] {
    if (op != Op::Read) return;
    if (!IsClosed()) readBuffers->dwBufferLength = count;
    op = Op::None;
    readBuffers = nullptr;
    readData = nullptr;
  });
}

void RequestHandle::Fail(DWORD error) {
  Op current = Op::None;
  DWORD count = 0;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    failure = error;
    current = op;
    count = readCount;
  }
  if (current == Op::None) return; // the next call reports it
  // Data already in the reader's buffer goes out first; the next read reports the failure.
  if (current == Op::Read && count > 0) {
    CompleteRead();
    return;
  }
  Complete(0, error, [this] {
    op = Op::None;
    failureReported = true;
  });
}

void RequestHandle::TransferDone(CURLcode code) {
  DWORD error = code == CURLE_OK ? 0 : transfer->ErrorOf(code);
  transfer->Detach();
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    transferRunning = false;
  }
  if (error) {
    Fail(error);
    return;
  }
  Op current = Op::None;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    replyDone = true;
    current = op;
  }
  if (current == Op::Read) {
    CompleteRead();
  } else if (current == Op::Send) {
    CompleteSend();
  } else if (current == Op::Write) {
    // The server answered before taking the whole body: the rest has nowhere to go.
    Complete(1, 0, [this] {
      if (op != Op::Write) return;
      if (!IsClosed()) *lentWritten = lentSize;
      op = Op::None;
    });
  }
}

} // namespace QOR::inet
