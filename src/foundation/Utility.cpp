#include <qorxmlu/foundation/Utility.h>

#include <qorxmlu/foundation/Encoding.h>

#include "platform/Platform.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

namespace QOR {

namespace {

// Windows-1252 in 0x80..0x9F; the rest of the code page is ISO 8859-1.
constexpr char16_t cp1252High[32] = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};

char16_t FromSingleByte(unsigned char byte, unsigned codePage) {
  if (byte < 0x80) return byte;
  if (codePage == 20127) return 0xFFFD;
  if (codePage == 1252 && byte < 0xA0) return cp1252High[byte - 0x80];
  return byte;
}

int ToSingleByte(char16_t unit, unsigned codePage) {
  if (unit < 0x80) return unit;
  if (codePage == 20127) return -1;
  if (codePage == 1252) {
    for (int i = 0; i < 32; ++i) {
      if (cp1252High[i] == unit && unit != 0xFFFD) return 0x80 + i;
    }
    if (unit >= 0x80 && unit < 0xA0) return -1;
  }
  return unit <= 0xFF ? unit : -1;
}

bool PortableCodePage(unsigned codePage) {
  return codePage == CodePageUtf8 || codePage == 20127 || codePage == 28591 || codePage == 1252;
}

unsigned Resolve(unsigned codePage) { return codePage == CodePageSystem ? platform::SystemCodePage() : codePage; }

template <class Unit>
Unit* Release(const std::basic_string<Unit>& text) {
  auto* copy = new Unit[text.size() + 1];
  std::memcpy(copy, text.data(), text.size() * sizeof(Unit));
  copy[text.size()] = 0;
  return copy;
}

std::atomic<ErrorSink> errorSink{nullptr};

void WriteToStderr(const ErrorInfo& error) {
  std::string line = "qorxmlu: " + error.FullText().ToUtf8() + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

} // namespace

char* ConvertToMultibyte(const char16_t* text, unsigned codePage, unsigned* usedDefault) {
  if (usedDefault) *usedDefault = 0;
  if (!text) return nullptr;
  codePage = Resolve(codePage);
  std::u16string_view units(text);
  std::string out;
  if (codePage == CodePageUtf8) {
    out.resize(units.size() * 3);
    out.resize(EncodeUtf8Units(units.data(), units.size(), out.data()));
  } else if (PortableCodePage(codePage)) {
    out.reserve(units.size());
    for (char16_t unit : units) {
      int byte = ToSingleByte(unit, codePage);
      if (byte < 0 && usedDefault) *usedDefault = 1;
      out += static_cast<char>(byte < 0 ? '?' : byte);
    }
  } else {
    bool defaulted = false;
    if (!platform::SystemToMultibyte(units.data(), units.size(), codePage, out, defaulted)) return nullptr;
    if (usedDefault) *usedDefault = defaulted ? 1 : 0;
  }
  return Release(out);
}

char* ConvertToMultibyte(const wchar_t* text, unsigned codePage, unsigned* usedDefault) {
  if (!text) return ConvertToMultibyte(static_cast<const char16_t*>(nullptr), codePage, usedDefault);
  return ConvertToMultibyte(String(text).Data(), codePage, usedDefault);
}

char16_t* ConvertFromMultibyte(const char* text, unsigned codePage, unsigned* usedDefault) {
  if (usedDefault) *usedDefault = 0;
  if (!text) return nullptr;
  codePage = Resolve(codePage);
  std::size_t length = std::strlen(text);
  std::u16string out;
  if (codePage == CodePageUtf8) {
    out.resize(length);
    out.resize(DecodeUtf8Units(text, length, out.data()));
  } else if (PortableCodePage(codePage)) {
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i) out += FromSingleByte(static_cast<unsigned char>(text[i]), codePage);
  } else if (!platform::SystemFromMultibyte(text, length, codePage, out)) {
    return nullptr;
  }
  return Release(out);
}

DWORD GetLastError() { return platform::GetLastError(); }
void SetLastError(DWORD code) { platform::SetLastError(code); }

String GetSystemErrMsge() { return platform::ErrorMessage(platform::GetLastError()); }
String GetSystemErrMsge(DWORD code) { return platform::ErrorMessage(code); }

String RemoveLeadPath(String path) {
  std::size_t slash = path.View().find_last_of(u"/\\");
  if (slash == std::u16string_view::npos) return path;
  return path.Mid(slash + 1);
}

void SetErrorSink(ErrorSink sink) { errorSink.store(sink); }

void LogAndResetError(ErrorInfo*& error) {
  if (!error) return;
  ErrorSink sink = errorSink.load();
  (sink ? sink : WriteToStderr)(*error);
  delete error;
  error = nullptr;
}

} // namespace QOR
