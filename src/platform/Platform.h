// The library's only door to the operating system. Each function has one implementation per
// platform folder (posix/, win32/); CMake picks the folder.
#pragma once

#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace QOR::platform {

// Modules loaded at run time: LoadLibraryW, GetProcAddress and FreeLibrary on Windows, dlopen,
// dlsym and dlclose elsewhere. A failure sets the thread's last error.
using ModuleHandle = void*;
ModuleHandle LoadLibraryW(const String& name);
void* GetProcAddress(ModuleHandle module, const char* symbol);
bool FreeLibrary(ModuleHandle module);
// The folder of the module that holds this library's code, with a separator at its end
// (empty if it cannot be told).
String LibraryFolder();
// The file name of the system's HTTP module: "wininet.dll" on Windows, "libqorinet.so" elsewhere.
String WinInetModuleName();

// The thread's last error. On Linux a module may supply its own (libqorinet keeps the WinInet
// error of its calls): once installed, GetLastError asks it.
DWORD GetLastError();
void SetLastError(DWORD code);
void SetLastErrorSource(DWORD (*source)());
// The system's text for an error code, without a line end.
String ErrorMessage(DWORD code);
// The text of an error number from the C library / file layer (errno, or a Win32 code on Windows).
String FileErrorMessage(int code);

// Files, opened in binary mode. Each call returns 0 or the system's error code.
struct FileHandle;
enum class FileMode { Read, Write, Append };
int OpenFile(const String& path, FileMode mode, FileHandle*& file);
int ReadFile(FileHandle* file, void* buffer, std::size_t size, std::size_t& bytesRead);
int WriteFile(FileHandle* file, const void* data, std::size_t size);
int FlushFile(FileHandle* file, bool commit);
int CloseFile(FileHandle* file);
std::uint64_t FileSize(FileHandle* file);
std::uint64_t FilePosition(FileHandle* file);

// A block just allocated that is about to be filled from end to end, such as a request body read
// from a file: where the system has large pages, it is asked to back the block with them, which
// saves most of the page faults of the fill. Only a hint; small blocks are left alone.
void AdviseFreshBlock(void* block, std::size_t size);
// A large block that will be filled whole, with its pages made present in one call rather than one
// fault each where the system can (not under AddressSanitizer, which watches only heap blocks).
// Throws std::bad_alloc; FreeFilledBlock takes it back with the same size.
void* AllocateFilledBlock(std::size_t size);
void FreeFilledBlock(void* block, std::size_t size) noexcept;

// The system's 8-bit code page for code page 0: 65001 on Linux, the ANSI code page on Windows.
unsigned SystemCodePage();
// Conversions through the system for code pages the portable tables don't know. Return false if
// the system doesn't know the code page either.
bool SystemToMultibyte(const char16_t* text, std::size_t length, unsigned codePage, std::string& out,
                       bool& usedDefault);
bool SystemFromMultibyte(const char* text, std::size_t length, unsigned codePage, std::u16string& out);

} // namespace QOR::platform
