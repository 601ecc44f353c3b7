#include <qorxmlu/trace/SafeTrace.h>

#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/ReadableFile.h>
#include <qorxmlu/query/SimpleSoap.h>

#include "platform/Platform.h"

#include <initializer_list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string_view>

namespace QOR {

namespace {

// Start-up state: set while no other thread traces, read without a lock afterwards.
std::unique_ptr<String> tracePath;
HttpClient* traceClient = nullptr;
// Held for the open, write, flush and close of one line, and for the truncating open. Nothing
// under it traces.
std::mutex traceMutex;

const char16_t* const uploadUrl = u"php/SafeTrace.php";
constexpr std::size_t maxUtf8PerUnit = 3;
// Lines up to this many UTF-8 bytes are encoded on the stack.
constexpr std::size_t stackLineBytes = 1024;

// Encodes the pieces and a line end as one UTF-8 line and appends it to the trace file.
void WriteLine(std::initializer_list<std::u16string_view> pieces) {
  std::size_t units = 2;
  for (std::u16string_view piece : pieces) units += piece.size();
  char stackLine[stackLineBytes];
  std::unique_ptr<char[]> heapLine;
  char* line = stackLine;
  if (units * maxUtf8PerUnit > stackLineBytes) {
    heapLine.reset(new char[units * maxUtf8PerUnit]);
    line = heapLine.get();
  }
  std::size_t length = 0;
  for (std::u16string_view piece : pieces) length += EncodeUtf8Units(piece.data(), piece.size(), line + length);
  line[length++] = '\r';
  line[length++] = '\n';

  const String* path = tracePath.get();
  if (!path) return;
  std::lock_guard<std::mutex> hold(traceMutex);
  platform::FileHandle* file = nullptr;
  if (platform::OpenFile(*path, platform::FileMode::Append, file) != 0) return;
  platform::WriteFile(file, line, length);
  platform::FlushFile(file, false);
  platform::CloseFile(file);
}

// Sends the trace file, if it can be read, and drops whatever comes back.
void UploadOldTrace(const String& path) {
  ReadableFile old(path);
  if (ErrorInfo* error = old.Open()) {
    delete error;
    return;
  }
  delete old.Close();
  SimpleSoap upload(uploadUrl, 0, u"0");
  upload.AddParameter(u"dummy", u"dummy");
  upload.AddFileUploadParam(path);
  delete upload.RunQuery(traceClient);
}

} // namespace

SafeTrace::SafeTrace(const char* className) : className(DecodeFromUTF8(className, false)) {}

void SafeTrace::SetTracePath(String path) { tracePath = std::make_unique<String>(std::move(path)); }

void SafeTrace::SetTraceClient(HttpClient* client) {
  traceClient = client;
  const String path = tracePath ? *tracePath : String();
  UploadOldTrace(path);

  std::lock_guard<std::mutex> hold(traceMutex);
  platform::FileHandle* file = nullptr;
  if (platform::OpenFile(path, platform::FileMode::Write, file) != 0)
    throw std::runtime_error("Failed to open SafeTrace file");
  platform::FlushFile(file, false);
  platform::CloseFile(file);
}

void SafeTrace::Trace(String text) { WriteLine({text.View()}); }

SafeTrace::FuncTrace::FuncTrace(const char* funcName, const SafeTrace& owner)
    : funcName(DecodeFromUTF8(funcName, false)), owner(&owner) {
  WriteLine({u"Entering ", owner.className.View(), u"::", this->funcName.View()});
}

SafeTrace::FuncTrace::~FuncTrace() {
  WriteLine({u"Leaving ", owner->className.View(), u"::", funcName.View()});
}

void SafeTrace::FuncTrace::Trace(String text) const {
  WriteLine({owner->className.View(), u"::", funcName.View(), u": ", text.View()});
}

} // namespace QOR
