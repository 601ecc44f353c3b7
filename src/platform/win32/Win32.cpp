// The Windows side of the platform layer: modules, last error, messages, files, code pages.
#include "platform/Platform.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <iterator>

namespace QOR::platform {

namespace {
const wchar_t* Wide(const String& text) { return text.WStr(); }
} // namespace

ModuleHandle LoadLibraryW(const String& name) { return ::LoadLibraryW(Wide(name)); }

void* GetProcAddress(ModuleHandle module, const char* symbol) {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(module), symbol));
}

bool FreeLibrary(ModuleHandle module) { return ::FreeLibrary(static_cast<HMODULE>(module)) != FALSE; }

String LibraryFolder() {
  HMODULE self = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&LibraryFolder), &self)) {
    return String();
  }
  wchar_t path[MAX_PATH * 4];
  DWORD length = GetModuleFileNameW(self, path, static_cast<DWORD>(std::size(path)));
  if (length == 0 || length >= std::size(path)) return String();
  std::u16string folder(reinterpret_cast<const char16_t*>(path), length);
  auto slash = folder.find_last_of(u"\\/");
  return slash == std::u16string::npos ? String() : String(folder.substr(0, slash + 1));
}

String WinInetModuleName() { return String(u"wininet.dll"); }

// Large pages need a privilege that applications seldom hold: nothing to ask for here.
void AdviseFreshBlock(void*, std::size_t) {}

void* AllocateFilledBlock(std::size_t size) {
  void* block = std::malloc(size);
  if (!block) throw std::bad_alloc();
  return block;
}

void FreeFilledBlock(void* block, std::size_t) noexcept { std::free(block); }

DWORD GetLastError() { return ::GetLastError(); }
void SetLastError(DWORD code) { ::SetLastError(code); }
void SetLastErrorSource(DWORD (*)()) {}

String ErrorMessage(DWORD code) {
  wchar_t* text = nullptr;
  DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                    FORMAT_MESSAGE_IGNORE_INSERTS,
                                nullptr, code, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
  String message;
  if (length && text) {
    while (length && (text[length - 1] == L'\r' || text[length - 1] == L'\n' || text[length - 1] == L' ')) --length;
    message = String(reinterpret_cast<const char16_t*>(text), length);
  }
  if (text) LocalFree(text);
  return message;
}

String FileErrorMessage(int code) { return ErrorMessage(static_cast<DWORD>(code)); }

struct FileHandle {
  HANDLE handle;
};

int OpenFile(const String& path, FileMode mode, FileHandle*& file) {
  DWORD access = mode == FileMode::Read ? GENERIC_READ : GENERIC_WRITE;
  DWORD disposition = mode == FileMode::Read ? OPEN_EXISTING : mode == FileMode::Write ? CREATE_ALWAYS : OPEN_ALWAYS;
  HANDLE handle = CreateFileW(Wide(path), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return static_cast<int>(::GetLastError());
  if (mode == FileMode::Append) SetFilePointer(handle, 0, nullptr, FILE_END);
  file = new FileHandle{handle};
  return 0;
}

int ReadFile(FileHandle* file, void* buffer, std::size_t size, std::size_t& bytesRead) {
  bytesRead = 0;
  auto* into = static_cast<char*>(buffer);
  while (bytesRead < size) {
    DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(size - bytesRead, 1u << 30));
    ::DWORD got = 0;
    if (!::ReadFile(file->handle, into + bytesRead, chunk, &got, nullptr)) return static_cast<int>(::GetLastError());
    if (got == 0) break;
    bytesRead += got;
  }
  return 0;
}

int WriteFile(FileHandle* file, const void* data, std::size_t size) {
  auto* from = static_cast<const char*>(data);
  while (size > 0) {
    DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(size, 1u << 30));
    ::DWORD put = 0;
    if (!::WriteFile(file->handle, from, chunk, &put, nullptr)) return static_cast<int>(::GetLastError());
    from += put;
    size -= put;
  }
  return 0;
}

int FlushFile(FileHandle* file, bool commit) {
  return commit && !FlushFileBuffers(file->handle) ? static_cast<int>(::GetLastError()) : 0;
}

int CloseFile(FileHandle* file) {
  int result = CloseHandle(file->handle) ? 0 : static_cast<int>(::GetLastError());
  delete file;
  return result;
}

std::uint64_t FileSize(FileHandle* file) {
  LARGE_INTEGER size{};
  return GetFileSizeEx(file->handle, &size) ? static_cast<std::uint64_t>(size.QuadPart) : 0;
}

std::uint64_t FilePosition(FileHandle* file) {
  LARGE_INTEGER zero{}, at{};
  return SetFilePointerEx(file->handle, zero, &at, FILE_CURRENT) ? static_cast<std::uint64_t>(at.QuadPart) : 0;
}

unsigned SystemCodePage() { return GetACP(); }

bool SystemToMultibyte(const char16_t* text, std::size_t length, unsigned codePage, std::string& out,
                       bool& usedDefault) {
  auto* wide = reinterpret_cast<const wchar_t*>(text);
  int count = static_cast<int>(length);
  int size = WideCharToMultiByte(codePage, 0, wide, count, nullptr, 0, nullptr, nullptr);
  if (size <= 0 && length > 0) return false;
  out.resize(static_cast<std::size_t>(size));
  BOOL defaulted = FALSE;
  bool utf = codePage == CP_UTF8 || codePage == CP_UTF7;
  WideCharToMultiByte(codePage, 0, wide, count, out.data(), size, nullptr, utf ? nullptr : &defaulted);
  usedDefault = defaulted != FALSE;
  return true;
}

bool SystemFromMultibyte(const char* text, std::size_t length, unsigned codePage, std::u16string& out) {
  int count = static_cast<int>(length);
  int size = MultiByteToWideChar(codePage, 0, text, count, nullptr, 0);
  if (size <= 0 && length > 0) return false;
  out.resize(static_cast<std::size_t>(size));
  MultiByteToWideChar(codePage, 0, text, count, reinterpret_cast<wchar_t*>(out.data()), size);
  return true;
}

} // namespace QOR::platform
