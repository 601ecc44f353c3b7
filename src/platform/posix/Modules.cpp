// Run-time modules on POSIX: dlopen, dlsym, dlclose in the shape of their Win32 namesakes.
#include "platform/Platform.h"

#include <dlfcn.h>

namespace QOR::platform {

namespace {
constexpr DWORD errorModNotFound = 126;  // ERROR_MOD_NOT_FOUND
constexpr DWORD errorProcNotFound = 127; // ERROR_PROC_NOT_FOUND
} // namespace

ModuleHandle LoadLibraryW(const String& name) {
  void* module = dlopen(name.ToUtf8().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) SetLastError(errorModNotFound);
  return module;
}

void* GetProcAddress(ModuleHandle module, const char* symbol) {
  void* address = module ? dlsym(module, symbol) : nullptr;
  if (!address) SetLastError(errorProcNotFound);
  return address;
}

bool FreeLibrary(ModuleHandle module) { return module && dlclose(module) == 0; }

String LibraryFolder() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&LibraryFolder), &info) || !info.dli_fname) return String();
  std::string path(info.dli_fname);
  auto slash = path.rfind('/');
  return slash == std::string::npos ? String() : String::FromUtf8(path.substr(0, slash + 1));
}

String WinInetModuleName() { return String(u"libqorinet.so"); }

} // namespace QOR::platform
