// The thread's last error on POSIX, and the texts of the Win32 codes the library can meet there.
#include "platform/Platform.h"

#include <atomic>
#include <cstring>

namespace QOR::platform {

namespace {
thread_local DWORD lastError = 0;
std::atomic<DWORD (*)()> lastErrorSource{nullptr};

struct CodeText {
  DWORD code;
  const char* text;
};

// The Win32 codes that libqorinet and this layer set; WinInet's own range has its texts elsewhere.
constexpr CodeText win32Texts[] = {
    {0, "The operation completed successfully."},
    {2, "The system cannot find the file specified."},
    {3, "The system cannot find the path specified."},
    {5, "Access is denied."},
    {6, "The handle is invalid."},
    {8, "Not enough memory resources are available to process this command."},
    {87, "The parameter is incorrect."},
    {120, "This function is not supported on this system."},
    {122, "The data area passed to a system call is too small."},
    {126, "The specified module could not be found."},
    {127, "The specified procedure could not be found."},
    {997, "Overlapped I/O operation is in progress."},
    {1460, "This operation returned because the timeout period expired."},
};
} // namespace

DWORD GetLastError() {
  DWORD (*source)() = lastErrorSource.load(std::memory_order_acquire);
  return source ? source() : lastError;
}

void SetLastError(DWORD code) { lastError = code; }

void SetLastErrorSource(DWORD (*source)()) { lastErrorSource.store(source, std::memory_order_release); }

String ErrorMessage(DWORD code) {
  for (const CodeText& row : win32Texts) {
    if (row.code == code) return String::FromAscii(row.text);
  }
  String text(u"Unknown error ");
  text << code;
  return text;
}

String FileErrorMessage(int code) {
  char buffer[256] = {};
  // The GNU strerror_r may return a static text instead of filling the buffer.
  auto result = strerror_r(code, buffer, sizeof buffer);
  if constexpr (std::is_same_v<decltype(result), char*>) {
    return String::FromUtf8(result ? result : buffer);
  } else {
    return String::FromUtf8(result == 0 ? buffer : "Unknown error");
  }
}

unsigned SystemCodePage() { return 65001; }

bool SystemToMultibyte(const char16_t*, std::size_t, unsigned, std::string&, bool&) { return false; }
bool SystemFromMultibyte(const char*, std::size_t, unsigned, std::u16string&) { return false; }

} // namespace QOR::platform
