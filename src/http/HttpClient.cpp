#include <qorxmlu/http/HttpClient.h>

#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/Event.h>
#include <qorxmlu/foundation/ReadableFile.h>
#include <qorxmlu/foundation/Thread.h>
#include <qorxmlu/foundation/Utility.h>
#include <qorxmlu/http/HttpClientImpInterface.h>

#include "http/HttpClientImp.h"
#include "http/InternetErrors.h"
#include "http/WinInetTable.h"
#include "platform/Platform.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace QOR {

namespace {

int WaitTime(std::uint32_t milliseconds) {
  return milliseconds > static_cast<std::uint32_t>(INT_MAX) ? -1 : static_cast<int>(milliseconds);
}

// Waits on the thread's stop event alone.
int WaitOnStop(Thread& thread, std::uint32_t milliseconds) {
  SVArray<Event*, Event*> events;
  events.SetCapacityIncrease(1);
  events.Add(thread.StopEvent());
  return WaitOnEvents(events, WaitTime(milliseconds));
}

} // namespace

HttpClient::HttpClient(String agent, String server, bool secure, DWORD connectTimeoutSeconds,
                       DWORD requestTimeoutSeconds)
    : HttpClientBase(std::move(agent), std::move(server), secure, connectTimeoutSeconds, requestTimeoutSeconds),
      imp(CreateHttpClientImp(this)) {}

HttpClient::~HttpClient() {
  delete imp;
  ReleaseSegments();
}

ErrorInfo* HttpClient::InitialiseHttp() { return LoadWinInet(); }

ErrorInfo* HttpClient::TerminateHttp() {
  UnloadWinInet();
  return nullptr;
}

ErrorInfo* HttpClient::Retrieve(String url, String& reply) {
  char* unusedBuffer = nullptr;
  std::size_t unusedLength = 0;
  return DoRetrieve(reply, 0, std::move(url), unusedBuffer, unusedLength);
}

ErrorInfo* HttpClient::RetrieveBase64(DWORD blockSize, String url, char*& buffer, std::size_t& length) {
  String unusedReply;
  return DoRetrieve(unusedReply, blockSize, std::move(url), buffer, length);
}

ErrorInfo* HttpClient::CancelRequest() { return imp->CancelRequest(); }

bool HttpClient::RequestCancelled() { return imp->RequestCancelled(); }

void HttpClient::AddUrlPrefix(String prefix) { urlPrefix = std::move(prefix); }

String HttpClient::UrlPrefix() { return urlPrefix; }

void HttpClient::UpdateBytesTransferred(std::size_t transferred, std::size_t total) {
  CritSectionLock hold(bytesLock);
  bytesTransferred = transferred;
  bytesTotal = total;
}

std::size_t HttpClient::GetBytesTransferred(std::size_t& total) {
  CritSectionLock hold(bytesLock);
  total = bytesTotal;
  return bytesTransferred;
}

ErrorInfo* HttpClient::EnsureConnected() {
  if (connected) return nullptr;
  ErrorInfo* error = imp->Connect();
  connected = error == nullptr;
  return error;
}

ErrorInfo* HttpClient::DropConnection() {
  if (!connected) return nullptr;
  // The request handle is closed by now; this only leaves the cancelled mark set.
  delete CancelRequest();
  ErrorInfo* error = imp->Disconnect();
  connected = false;
  return error;
}

ErrorInfo* HttpClient::DoRetrieve(String& reply, DWORD blockSize, String url, char*& buffer, std::size_t& length) {
  requestUrl = urlPrefix + url;
  if (ErrorInfo* error = EnsureConnected()) return error;

  // The watchdog: cancels the request when requestTimeout has run out since its start.
  class LocalThread : public Thread {
  public:
    explicit LocalThread(HttpClient* client)
        : Thread("LocalThread", new Event(true), false), client(client),
          due(std::chrono::steady_clock::now() + std::chrono::milliseconds(client->requestTimeout)) {
      // Most requests end well within this: their watchdog then never needs a thread of its own.
      AllowLateStart(std::chrono::milliseconds(1));
    }
    ~LocalThread() override = default;

  protected:
    ErrorInfo* ThreadBody(bool& finished) override {
      // The limit counts from the request's start, not from the late start of this thread, so the
      // watchdog is due before any single wait of the request runs out.
      std::uint32_t left = client->requestTimeout;
      if (WaitTime(left) != -1) {
        auto rest = std::chrono::ceil<std::chrono::milliseconds>(due - std::chrono::steady_clock::now()).count();
        left = rest > 0 ? static_cast<std::uint32_t>(rest) : 0;
      }
      if (WaitOnStop(*this, left) == -1) delete client->CancelRequest();
      finished = true;
      return nullptr;
    }

  private:
    HttpClient* client;
    std::chrono::steady_clock::time_point due;
  };

  ErrorInfo* error = nullptr;
  {
    LocalThread watchdog(this);
    // Without the thread the request still has the time-outs of its single waits.
    delete watchdog.StartRunning();
    error = imp->FetchRequestBuffer();
    if (!error) error = SendPost(requestUrl);
    if (!error) error = blockSize != 0 ? imp->ReadBase64Reply(blockSize, buffer, length) : imp->ReadReply(reply);
    watchdog.BlockingStopRunning();
  }
  error = SafeConcat(error, imp->CloseRequest());
  if (error) error = SafeConcat(error, DropConnection());
  return error;
}

ErrorInfo* HttpClient::SendPost(String url) {
  // Reports a percent figure every progressInterval, paced so that it reaches 100 after about
  // progressDuration and never runs ahead of the bytes written.
  class LocalThread : public Thread {
  public:
    LocalThread(HttpClient* client, std::uint64_t progressTotal, std::uint32_t progressDuration,
                std::uint32_t progressInterval)
        : Thread("LocalThread 2", new Event(true), false), client(client), progressTotal(progressTotal),
          progressDuration(progressDuration), progressInterval(progressInterval) {}
    ~LocalThread() override = default;

  protected:
    ErrorInfo* ThreadBody(bool& finished) override {
      finished = false;
      const std::uint32_t interval = std::max<std::uint32_t>(progressInterval, 1);
      std::uint32_t ticks = progressDuration / interval + 1;
      std::uint64_t pace = progressTotal / ticks;
      lastPercent = 0;
      client->ReportProgress(0);
      std::uint64_t tick = 0;
      while (!finished) {
        if (WaitOnStop(*this, interval) == 0) finished = true;
        std::size_t total = 0;
        std::uint64_t transferred = client->GetBytesTransferred(total);
        ++tick;
        // Nothing to show until the engine has reported a body size.
        if (total == 0) continue;
        // A total below one byte per step gives no pace: the figure then follows the bytes alone,
        // rather than stay below 100 for good.
        std::uint64_t shown = pace == 0 ? transferred : std::min<std::uint64_t>(transferred, tick * pace);
        int percent = static_cast<int>(static_cast<double>(shown) * 100.0 / static_cast<double>(total));
        if (percent > 100) percent = 100;
        if (percent > lastPercent) {
          lastPercent = percent;
          client->ReportProgress(percent);
        }
        if (percent == 100) finished = true;
        // A cancelled request, by the time limit too, ends the figure.
        if (client->RequestCancelled()) finished = true;
      }
      return nullptr;
    }

  private:
    HttpClient* client;
    std::uint64_t progressTotal;
    int lastPercent = 0;
    std::uint32_t progressDuration;
    std::uint32_t progressInterval;
  };

  LocalThread* progress = nullptr;
  ErrorInfo* error = nullptr;
  if (progressTotal != 0) {
    progress = new LocalThread(this, progressTotal, static_cast<std::uint32_t>(progressDuration),
                               static_cast<std::uint32_t>(progressInterval));
    error = progress->StartRunning();
  }
  if (!error) error = imp->SendRequest(std::move(url));
  if (progress) {
    // On success the figure must reach 100 before the reply is read.
    if (error)
      progress->BlockingStopRunning();
    else
      progress->AwaitStoppedRunning();
    delete progress;
    progressTotal = 0;
  }
  return error;
}

namespace {

// The parts of a multipart body. The index of a field decides, not the number of parts written:
// a first field without a value still makes the body start with a line end.
String FieldPart(const String& boundary, std::size_t index, const String& name, const String& value) {
  String part;
  if (index != 0) part << newline;
  part << u"--" << boundary << newline;
  part << u"Content-Disposition: form-data; name=\"" << name << u"\"" << newline;
  part << u"Content-Type: text/plain; charset=utf-8" << newline;
  part << u"Content-Transfer-Encoding: 8bit" << newline << newline;
  part << value;
  return part;
}

String FileHead(const String& boundary, bool afterFields, const String& param, const String& path) {
  String head;
  if (afterFields) head << newline;
  head << u"--" << boundary << newline;
  head << u"Content-Disposition: form-data; name=\"" << param << u"\"; filename=\"" << RemoveLeadPath(path) << u"\""
       << newline;
  // The lines name Base64, but the bytes go as they are; receivers of the family expect that.
  head << u"Content-Type: application/base64" << newline;
  head << u"Content-Transfer-Encoding: Base64" << newline << newline;
  return head;
}

String Closing(const String& boundary) {
  String closing;
  closing << newline << u"--" << boundary << u"--";
  return closing;
}

std::uint64_t Utf8Size(const String& text) { return EncodeToUTF8(text, nullptr, false) - 1; }

} // namespace

std::uint64_t HttpClient::FormBodySize() const {
  const String boundary(HttpClientImp::boundaryText);
  std::uint64_t size = Utf8Size(Closing(boundary));
  for (std::size_t i = 0; i < formNames.Size(); ++i) {
    if (!formValues[i].IsEmpty()) size += Utf8Size(FieldPart(boundary, i, formNames[i], formValues[i]));
  }
  if (!uploadFile.IsEmpty()) {
    ReadableFile file(uploadFile);
    ErrorPtr error(file.Open());
    if (error) return 0;
    size += Utf8Size(FileHead(boundary, formNames.Size() != 0, uploadParam, uploadFile)) + file.GetFileSize();
  }
  return size;
}

// The body is built in one pass: the text parts are encoded into segments, the file part is
// only sized, and then one block is filled, with the file read straight into its place. When the
// engine takes a large file to send from the file, the block ends where the file's bytes begin.
ErrorInfo* HttpClient::GetRequestBuffer(const String& boundary, const char*& buffer, std::size_t& length) {
  buffer = nullptr;
  length = 0;
  const VArray<String>& names = formNames;
  const VArray<String>& values = formValues;
  for (std::size_t i = 0; i < names.Size(); ++i) {
    if (!values[i].IsEmpty()) AddTextSegment(FieldPart(boundary, i, names[i], values[i]));
  }

  String path = uploadFile;
  String param = uploadParam;
  std::unique_ptr<ReadableFile> file;
  ErrorInfo* error = nullptr;
  std::size_t fileSegment = SIZE_MAX;
  if (!path.IsEmpty()) {
    AddTextSegment(FileHead(boundary, names.Size() != 0, param, path));
    file = std::make_unique<ReadableFile>(path);
    error = file->Open();
    if (!error) {
      fileSegment = segments.Size();
      segments.Add(RequestSegment{file->GetFileSize(), nullptr});
    }
  }
  ClearFormFields();

  std::uint64_t total = 0;
  if (!error) {
    AddTextSegment(Closing(boundary));
    for (std::size_t i = 0; i < segments.Size(); ++i) total += segments[i].length;
    // Refused before the file is read into memory.
    if (total > largestTransfer) error = MakeError(String(bodyTooLarge));
  }
  // The engine is the one that CreateHttpClientImp made.
  auto* engine = static_cast<HttpClientImp*>(imp);
  const bool fromFile = !error && fileSegment != SIZE_MAX && engine->TakesUploadFile(segments[fileSegment].length);
  if (!error) {
    auto size = static_cast<std::size_t>(total);
    std::size_t parts = segments.Size();
    if (fromFile) {
      parts = fileSegment;
      size = 0;
      for (std::size_t i = 0; i < parts; ++i) size += segments[i].length;
    }
    char* block = new char[size];
    platform::AdviseFreshBlock(block, size);
    char* position = block;
    for (std::size_t i = 0; i < parts && !error; ++i) {
      const RequestSegment& segment = segments[i];
      if (i == fileSegment)
        error = file->ReadFile(position, segment.length);
      else
        std::memcpy(position, segment.data, segment.length);
      position += segment.length;
    }
    if (error) {
      delete[] block;
    } else {
      buffer = block;
      length = size;
    }
  }
  if (fromFile && !error) {
    const RequestSegment& closing = segments[fileSegment + 1];
    engine->SendFromFile(buffer, length, std::move(file), segments[fileSegment].length,
                         std::string(closing.data, closing.length));
  }
  ReleaseSegments();
  return error;
}

void HttpClient::AddTextSegment(String text) {
  std::size_t size = EncodeToUTF8(text, nullptr, false);
  char* data = new char[size];
  EncodeToUTF8(text, data, false);
  // The NUL stays in the block but not in the body.
  segments.Add(RequestSegment{size - 1, data});
}

void HttpClient::ReleaseSegments() {
  while (segments.Size() != 0) {
    delete[] segments[0].data;
    segments.Remove(0);
  }
}

} // namespace QOR
