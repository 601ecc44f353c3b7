#include "RequestHandle.h"

#include <algorithm>
#include <cstring>

namespace QOR::inet {

namespace {

// Reply bytes held for the next read before libcurl is paused; with one libcurl buffer on top,
// this bounds what the layer keeps of a reply.
constexpr std::size_t replyQueueLimit = 1024 * 1024;

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

std::string Join(const std::vector<std::string>& items, const char* separator) {
  std::string joined;
  for (const std::string& item : items) {
    if (!joined.empty()) joined += separator;
    joined += item;
  }
  return joined;
}

} // namespace

RequestHandle::RequestHandle(std::shared_ptr<ConnectHandle> connection, std::string verb, std::string object,
                             std::string referrer, std::vector<std::string> acceptTypes, DWORD flags,
                             DWORD_PTR context)
    : Handle(Kind::Request, connection, context), connection(connection),
      verb(verb.empty() ? "GET" : std::move(verb)), target(RequestTarget(object)), flags(flags) {
  if (!referrer.empty()) headers.Set("Referer", referrer);
  if (!acceptTypes.empty()) headers.Set("Accept", Join(acceptTypes, ", "));
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
  }
  PostSelf(next);
  return ERROR_IO_PENDING;
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

void RequestHandle::Closed() { PostSelf(&RequestHandle::Dispose); }

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
  if (!transfer->Start(plan, std::static_pointer_cast<RequestHandle>(shared_from_this())))
    Fail(ERROR_INTERNET_INTERNAL_ERROR);
}

Transfer::Plan RequestHandle::MakePlan() {
  Transfer::Plan plan;
  HeaderList wire;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    wire = headers;
    plan.bodySize = total;
  }
  const Session::Settings& settings = GetSession().GetSettings();
  plan.secure = (flags & INTERNET_FLAG_SECURE) != 0;
  plan.verifyName = (flags & INTERNET_FLAG_IGNORE_CERT_CN_INVALID) == 0;
  plan.verb = verb;
  plan.hasBody = !(verb == "HEAD" || (verb == "GET" && plan.bodySize == 0));
  plan.url = (plan.secure ? "https://" : "http://") + connection->UrlHost() + ":" +
             std::to_string(connection->PortFor(plan.secure)) + target;
  plan.connectTimeoutMs = static_cast<long>(ConnectTimeout());
  plan.accessType = settings.accessType;
  plan.proxy = settings.proxy;
  plan.bypass = settings.bypass;

  // The order WinInet sends them in: the request's own headers, then these.
  wire.AddIfMissing("Host", connection->HostHeader(plan.secure));
  if (plan.hasBody) wire.Set("Content-Length", std::to_string(plan.bodySize));
  if (!settings.agent.empty()) wire.AddIfMissing("User-Agent", settings.agent);
  if (flags & INTERNET_FLAG_RELOAD) wire.AddIfMissing("Cache-Control", "no-cache");
  if (flags & INTERNET_FLAG_PRAGMA_NOCACHE) wire.AddIfMissing("Pragma", "no-cache");
  if (flags & INTERNET_FLAG_KEEP_CONNECTION) wire.AddIfMissing("Connection", "Keep-Alive");

  std::size_t bytes = verb.size() + 1 + target.size() + sizeof(" HTTP/1.1\r\n") - 1 + 2;
  for (const HeaderList::Field& field : wire.Fields()) {
    // libcurl reads "Name:" as "leave this header out" and "Name;" as "send it empty".
    plan.headerLines.push_back(field.name + (field.value.empty() ? ";" : ": " + field.value));
    bytes += field.name.size() + 2 + field.value.size() + 2;
  }
  // Headers libcurl would add of its own accord.
  plan.headerLines.emplace_back("Expect:");
  if (!wire.Find("Accept")) plan.headerLines.emplace_back("Accept:");
  if (plan.hasBody && !wire.Find("Content-Type")) plan.headerLines.emplace_back("Content-Type:");
  headBytes = static_cast<DWORD>(bytes);
  return plan;
}

void RequestHandle::ResumeUpload() {
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

// ---- transfer events (loop thread) ----

void RequestHandle::SocketOpening(const std::string& address) {
  peerAddress = address;
  DWORD length = static_cast<DWORD>(address.size() + 1);
  if (!connection->resolved) {
    connection->resolved = true;
    Notify(INTERNET_STATUS_NAME_RESOLVED, address.c_str(), length);
  }
  Notify(INTERNET_STATUS_CONNECTING_TO_SERVER, address.c_str(), length);
  freshConnection = true;
}

void RequestHandle::Connected() {
  if (!freshConnection) return;
  freshConnection = false;
  Notify(INTERNET_STATUS_CONNECTED_TO_SERVER, peerAddress.c_str(), static_cast<DWORD>(peerAddress.size() + 1));
}

void RequestHandle::RequestReady() {
  Connected();
  // libcurl may go on to a fresh connection when a pooled one turns out dead before anything
  // was sent: that is silent, as it is in WinInet.
  if (requestSent) return;
  requestSent = true;
  Notify(INTERNET_STATUS_SENDING_REQUEST, nullptr, 0);
  DWORD bytes = headBytes;
  Notify(INTERNET_STATUS_REQUEST_SENT, &bytes, sizeof bytes);
  Complete(1, 0, [this] {
    if (op != Op::Send) return;
    op = Op::None;
    stage = Stage::Body;
  });
}

std::size_t RequestHandle::Upload(char* buffer, std::size_t size) {
  std::size_t taken = 0;
  DWORD finished = 0;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    if (IsClosed()) return CURL_READFUNC_ABORT;
    if (op != Op::Write || lentTaken == lentSize) return CURL_READFUNC_PAUSE;
    taken = std::min<std::size_t>(size, lentSize - lentTaken);
    std::memcpy(buffer, lentData + lentTaken, taken);
    lentTaken += static_cast<DWORD>(taken);
    if (lentTaken == lentSize) finished = lentSize;
  }
  if (finished) {
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
  bool ready = false;
  {
    std::lock_guard<std::mutex> guard(GetSession().Lock());
    headersDone = true;
    ready = op == Op::End;
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
    if (op != Op::End) return;
  }
  DWORD size = statusLineSize;
  Notify(INTERNET_STATUS_RESPONSE_RECEIVED, &size, sizeof size);
  Complete(1, 0, [this] {
    if (op != Op::End) return;
    op = Op::None;
    stage = Stage::Reply;
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
