#include "InetDriver.h"

#include <algorithm>

namespace QOR::inettest {

namespace {

// The driver whose call is running on this thread: its callbacks here are "C".
thread_local const InetDriver* insideCall = nullptr;
// How many completions its driver had when the call running on this thread began.
thread_local std::size_t completionsBeforeCall = 0;

// Runs one entry point as a call of `driver`.
template <class Entry> auto InsideCall(const InetDriver* driver, Entry entry) {
  insideCall = driver;
  auto outcome = entry();
  insideCall = nullptr;
  return outcome;
}

using WideText = std::basic_string<WCHAR>;

WideText Widen(const std::string& text) { return WideText(text.begin(), text.end()); }

// A text of a callback, narrow or wide, up to `length` units or its end.
template <class Char> std::string Printable(const Char* text, std::size_t length) {
  std::string out;
  for (std::size_t i = 0; i < length && text[i]; ++i)
    out += text[i] >= 0x20 && text[i] < 0x7F ? static_cast<char>(text[i]) : '?';
  return out;
}

const char referrer[] =
    "Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.2; WOW64; SV1; .NET CLR 2.0.50727; .NET CLR 3.0.04506.30; "
    ".NET CLR 3.0.04506.648; .NET CLR 3.5.21022)";
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
const char contentType[] = "Content-Type: multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p";

} // namespace

InetDriver::~InetDriver() {
  closingWait = std::min(closingWait, std::chrono::milliseconds(2000));
  CloseAll();
}

void InetDriver::CloseAll() {
  if (request) CloseRequest();
  if (connection) CloseConnection();
  if (!root) return;
  std::size_t index = BeginCall("InternetSetStatusCallbackW(NULL)");
  InsideCall(this, [&] { return InternetSetStatusCallbackW(root, nullptr); });
  EndCall(index, "done");
  CloseAndForget(root);
}

void InetDriver::SetWaits(std::chrono::milliseconds completion, std::chrono::milliseconds closing) {
  completionWait = completion;
  closingWait = closing;
}

// ---- callbacks ----

void CALLBACK InetDriver::StatusCallback(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info,
                                         DWORD length) {
  reinterpret_cast<InetDriver*>(context)->OnStatus(handle, status, info, length);
}

void InetDriver::OnStatus(HINTERNET handle, DWORD status, LPVOID info, DWORD length) {
  Note note{handle, status, 0, std::chrono::steady_clock::now()};
  if (!info) length = 0;
  const auto* async = static_cast<const INTERNET_ASYNC_RESULT*>(info);
  std::lock_guard<std::mutex> guard(lock);
  std::string line = std::string(insideCall == this ? "  C " : "  W ") + std::to_string(status);
  switch (status) {
  case INTERNET_STATUS_HANDLE_CREATED: {
    auto created = length >= sizeof(DWORD_PTR) ? reinterpret_cast<HINTERNET>(async->dwResult) : nullptr;
    names[created] = creating;
    dead[created] = false;
    line += " " + NameOf(created);
    break;
  }
  case INTERNET_STATUS_HANDLE_CLOSING:
    line += " " + NameOf(handle);
    break;
  case INTERNET_STATUS_REQUEST_COMPLETE: {
    INTERNET_ASYNC_RESULT outcome{};
    if (length >= sizeof outcome) outcome = *async;
    completions.push_back(outcome);
    line += std::string(" (") + (outcome.dwResult ? "1" : "0") + "," + std::to_string(outcome.dwError) + ")";
    break;
  }
  case INTERNET_STATUS_REQUEST_SENT:
  case INTERNET_STATUS_RESPONSE_RECEIVED:
    if (length >= sizeof(DWORD)) note.value = *static_cast<const DWORD*>(info);
    line += " " + std::to_string(note.value);
    break;
  case INTERNET_STATUS_RESOLVING_NAME:
    line += " \"" + Printable(static_cast<const WCHAR*>(info), length / sizeof(WCHAR)) + "\"";
    break;
  case INTERNET_STATUS_NAME_RESOLVED:
  case INTERNET_STATUS_CONNECTED_TO_SERVER:
    line += " \"" + Printable(static_cast<const char*>(info), length) + "\"";
    break;
  default:
    break;
  }
  if (dead[handle]) lateCallback = true;
  if (status == INTERNET_STATUS_HANDLE_CLOSING) {
    dead[handle] = true;
    ++closings[handle];
  }
  notes.push_back(note);
  lines.push_back(line);
  changed.notify_all();
}

std::string InetDriver::NameOf(HINTERNET handle) const {
  if (!handle) return "NULL";
  if (handle == root) return "root";
  auto found = names.find(handle);
  return found != names.end() ? found->second : "?";
}

// ---- bookkeeping of calls ----

std::size_t InetDriver::BeginCall(const std::string& text, const char* role) {
  std::lock_guard<std::mutex> guard(lock);
  if (role) creating = role;
  completionsBeforeCall = completions.size();
  lines.push_back(text);
  return lines.size() - 1;
}

void InetDriver::EndCall(std::size_t index, const std::string& outcome) {
  std::lock_guard<std::mutex> guard(lock);
  lines[index] += " -> " + outcome;
}

InetDriver::Result InetDriver::Finish(std::size_t index, BOOL ok, bool wait, const DWORD* bytes) {
  Result result;
  if (ok) {
    result.ok = true;
    result.bytes = bytes ? *bytes : 0;
    EndCall(index, bytes ? "TRUE " + std::to_string(result.bytes) : std::string("TRUE"));
    return result;
  }
  DWORD error = GetLastError();
  if (error != ERROR_IO_PENDING) {
    result.error = error;
    EndCall(index, "FALSE " + std::to_string(error));
    return result;
  }
  EndCall(index, "pending");
  pendingMark = completionsBeforeCall;
  if (!wait) {
    result.pending = true;
    return result;
  }
  result = Wait();
  if (bytes && result.ok) result.bytes = *bytes;
  return result;
}

InetDriver::Result InetDriver::Wait() {
  Result result;
  result.pending = true;
  std::unique_lock<std::mutex> guard(lock);
  if (!changed.wait_for(guard, completionWait, [this] { return completions.size() > pendingMark; })) return result;
  const INTERNET_ASYNC_RESULT& outcome = completions[pendingMark];
  result.completed = true;
  result.ok = outcome.dwResult != 0;
  result.error = result.ok ? 0 : outcome.dwError;
  return result;
}

// ---- the calls ----

template <class Entry>
InetDriver::Result InetDriver::Call(const std::string& text, bool wait, const DWORD* bytes, Entry entry) {
  std::size_t index = BeginCall(text);
  return Finish(index, InsideCall(this, entry), wait, bytes);
}

template <class Entry> HINTERNET InetDriver::Create(const std::string& text, const char* role, Entry entry) {
  std::size_t index = BeginCall(text, role);
  HINTERNET made = InsideCall(this, entry);
  if (made) {
    std::lock_guard<std::mutex> guard(lock);
    names[made] = role;
  }
  EndCall(index, made ? std::string(role) : "NULL " + std::to_string(GetLastError()));
  return made;
}

bool InetDriver::Open(DWORD access, const std::string& proxy) {
  root = Create("InternetOpenW", "root", [&] {
    return InternetOpenW(Widen("qorinet-test").c_str(), access, proxy.empty() ? nullptr : Widen(proxy).c_str(),
                         nullptr, INTERNET_FLAG_ASYNC);
  });
  if (!root) return false;
  std::size_t index = BeginCall("InternetSetStatusCallbackW");
  INTERNET_STATUS_CALLBACK old =
      InsideCall(this, [&] { return InternetSetStatusCallbackW(root, &InetDriver::StatusCallback); });
  EndCall(index, old == INTERNET_INVALID_STATUS_CALLBACK ? "INVALID" : old ? "old" : "NULL");
  return old != INTERNET_INVALID_STATUS_CALLBACK;
}

bool InetDriver::Connect(const std::string& server, INTERNET_PORT port) {
  WideText name = Widen(server), empty;
  connection = Create("InternetConnectW(" + server + ")", "conn", [&] {
    return InternetConnectW(root, name.c_str(), port, empty.c_str(), empty.c_str(), INTERNET_SERVICE_HTTP, 0,
                            reinterpret_cast<DWORD_PTR>(this));
  });
  return connection != nullptr;
}

bool InetDriver::OpenRequest(const std::string& object, DWORD flags) {
  request = Create("HttpOpenRequestA(POST " + object + ")", "req", [&] {
    return HttpOpenRequestA(connection, "POST", object.c_str(), nullptr, referrer, acceptTypes, flags,
                            reinterpret_cast<DWORD_PTR>(this));
  });
  return request != nullptr;
}

InetDriver::Result InetDriver::AddHeader(const std::string& line, DWORD modifiers) {
  bool replace = (modifiers & HTTP_ADDREQ_FLAG_REPLACE) != 0;
  WideText text = Widen(line);
  return Call(std::string("HttpAddRequestHeadersW(") + (replace ? "REPLACE" : "ADD") + ")", false, nullptr,
              [&] { return HttpAddRequestHeadersW(request, text.c_str(), static_cast<DWORD>(-1), modifiers); });
}

InetDriver::Result InetDriver::AddContentType() {
  Result result = AddHeader(contentType, HTTP_ADDREQ_FLAG_REPLACE);
  if (!result.ok && result.error == ERROR_HTTP_HEADER_NOT_FOUND) result = AddHeader(contentType, HTTP_ADDREQ_FLAG_ADD);
  return result;
}

InetDriver::Result InetDriver::SendEx(DWORD total, bool wait, Block form) {
  INTERNET_BUFFERSW block{};
  block.dwStructSize = sizeof block;
  block.dwBufferTotal = total;
  char empty = 0;
  if (form == Block::EmptyBuffer) block.lpvBuffer = &empty;
  return Call("HttpSendRequestExW(" + std::to_string(total) + ")", wait, nullptr, [&] {
    return HttpSendRequestExW(request, form == Block::None ? nullptr : &block, nullptr, HSR_INITIATE,
                              reinterpret_cast<DWORD_PTR>(this));
  });
}

InetDriver::Result InetDriver::Write(const char* data, DWORD size, bool wait) {
  written = 0;
  return Call("InternetWriteFile(" + std::to_string(size) + ")", wait, &written,
              [&] { return InternetWriteFile(request, data, size, &written); });
}

InetDriver::Result InetDriver::WriteAll(const std::string& body) {
  Result result;
  result.ok = true;
  std::size_t done = 0;
  do {
    DWORD size = static_cast<DWORD>(std::min<std::size_t>(blockSize, body.size() - done));
    Result step = Write(body.data() + done, size);
    if (!step.ok) return step;
    done += step.bytes;
    result.bytes += step.bytes;
  } while (done < body.size());
  return result;
}

InetDriver::Result InetDriver::End(bool wait) {
  return Call("HttpEndRequestW", wait, nullptr,
              [&] { return HttpEndRequestW(request, nullptr, 0, reinterpret_cast<DWORD_PTR>(this)); });
}

InetDriver::Result InetDriver::Read(char* buffer, DWORD capacity, bool wait) {
  readBlock = INTERNET_BUFFERSA{};
  readBlock.dwStructSize = sizeof readBlock;
  readBlock.lpvBuffer = buffer;
  readBlock.dwBufferLength = capacity;
  return Call("InternetReadFileExA(" + std::to_string(capacity) + ")", wait, &readBlock.dwBufferLength, [&] {
    return InternetReadFileExA(request, &readBlock, IRF_ASYNC, reinterpret_cast<DWORD_PTR>(this));
  });
}

InetDriver::Result InetDriver::ReadAll(std::string& body) {
  std::vector<char> buffer(blockSize);
  std::size_t total = 0;
  for (;;) {
    Result result = Read(buffer.data() + total, static_cast<DWORD>(buffer.size() - total));
    if (!result.ok) return result;
    if (result.bytes == 0) break;
    total += result.bytes;
    if (total == buffer.size()) buffer.resize(buffer.size() + blockSize);
  }
  body.assign(buffer.data(), total);
  Result result;
  result.ok = true;
  result.bytes = static_cast<DWORD>(total);
  return result;
}

// ---- closing ----

InetDriver::Result InetDriver::CloseHandleOnly(HINTERNET handle) {
  std::string name;
  {
    std::lock_guard<std::mutex> guard(lock);
    name = NameOf(handle);
  }
  return Call("InternetCloseHandle(" + name + ")", false, nullptr, [&] { return InternetCloseHandle(handle); });
}

int InetDriver::ClosingsOf(HINTERNET handle) const {
  std::lock_guard<std::mutex> guard(lock);
  auto found = closings.find(handle);
  return found == closings.end() ? 0 : found->second;
}

bool InetDriver::WaitClosing(HINTERNET handle, int since, std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> guard(lock);
  return changed.wait_for(guard, time, [&] {
    auto found = closings.find(handle);
    return found != closings.end() && found->second > since;
  });
}

InetDriver::Result InetDriver::CloseAndForget(HINTERNET& handle) {
  int before = ClosingsOf(handle);
  bool isRoot = handle == root;
  Result result = CloseHandleOnly(handle);
  // The root handle has no context, so it never reports HANDLE_CLOSING.
  if (result.ok && !isRoot) result.completed = WaitClosing(handle, before, closingWait);
  handle = nullptr;
  return result;
}

InetDriver::Result InetDriver::CloseRequest() { return CloseAndForget(request); }

InetDriver::Result InetDriver::CloseConnection() { return CloseAndForget(connection); }

// ---- composites ----

InetDriver::Result InetDriver::Exchange(const std::string& body, std::string& reply) {
  AddContentType();
  Result result = SendEx(static_cast<DWORD>(body.size()));
  if (result.ok) result = WriteAll(body);
  Result ended = End();
  if (result.ok || (ended.pending && !ended.completed)) result = ended;
  if (result.ok) result = ReadAll(reply);
  return result;
}

InetDriver::Result InetDriver::Post(const std::string& object, const std::string& body, std::string& reply,
                                    DWORD flags) {
  Result result;
  if (!OpenRequest(object, flags)) {
    result.error = GetLastError();
    return result;
  }
  result = Exchange(body, reply);
  CloseRequest();
  return result;
}

// ---- what was seen ----

std::vector<std::string> InetDriver::Trace() const {
  std::lock_guard<std::mutex> guard(lock);
  return lines;
}

std::vector<InetDriver::Note> InetDriver::Notes() const {
  std::lock_guard<std::mutex> guard(lock);
  return notes;
}

bool InetDriver::CallbackAfterClosing() const {
  std::lock_guard<std::mutex> guard(lock);
  return lateCallback;
}

} // namespace QOR::inettest
