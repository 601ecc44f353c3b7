#include "http/WinInetTable.h"

#include <type_traits>

namespace QOR {

WinInetTable winInet;

namespace {

struct EntryPoint {
  const char* name;
  const char16_t* missing;
  void (*store)(void* address);
};

template <auto Slot> void Store(void* address) {
  using Pointer = std::remove_reference_t<decltype(winInet.*Slot)>;
  winInet.*Slot = reinterpret_cast<Pointer>(address);
}

// The order of the lookups and the words of each failure are fixed. The seventh message has
// always read "nternetReadFileExA"; hosts match on it.
constexpr EntryPoint entryPoints[] = {
    {"InternetOpenW", u"Could not find InternetOpenW in wininet.dll", &Store<&WinInetTable::InternetOpenW>},
    {"InternetCloseHandle", u"Could not find InternetCloseHandle in wininet.dll",
     &Store<&WinInetTable::InternetCloseHandle>},
    {"InternetSetStatusCallbackW", u"Could not find InternetSetStatusCallbackW in wininet.dll",
     &Store<&WinInetTable::InternetSetStatusCallbackW>},
    {"HttpOpenRequestA", u"Could not find HttpOpenRequestA in wininet.dll", &Store<&WinInetTable::HttpOpenRequestA>},
    {"InternetSetOptionW", u"Could not find InternetSetOptionW in wininet.dll",
     &Store<&WinInetTable::InternetSetOptionW>},
    {"InternetWriteFile", u"Could not find InternetWriteFile in wininet.dll", &Store<&WinInetTable::InternetWriteFile>},
    {"InternetReadFileExA", u"Could not find nternetReadFileExA in wininet.dll",
     &Store<&WinInetTable::InternetReadFileExA>},
    {"HttpEndRequestW", u"Could not find HttpEndRequestW in wininet.dll", &Store<&WinInetTable::HttpEndRequestW>},
    {"InternetConnectW", u"Could not find InternetConnectW in wininet.dll", &Store<&WinInetTable::InternetConnectW>},
    {"HttpSendRequestExW", u"Could not find HttpSendRequestExW in wininet.dll",
     &Store<&WinInetTable::HttpSendRequestExW>},
    {"HttpAddRequestHeadersW", u"Could not find HttpAddRequestHeadersW in wininet.dll",
     &Store<&WinInetTable::HttpAddRequestHeadersW>},
};

constexpr ModuleLoader systemLoader{&platform::LoadLibraryW, &platform::GetProcAddress, &platform::FreeLibrary};

// The loader that made the module in the table, for its release.
const ModuleLoader* moduleLoader = nullptr;

platform::ModuleHandle LoadModule(const ModuleLoader& loader) {
  String name = platform::WinInetModuleName();
  String folder = platform::LibraryFolder();
  if (!folder.IsEmpty()) {
    if (platform::ModuleHandle module = loader.load(folder + name)) return module;
  }
  return loader.load(name);
}

} // namespace

const ModuleLoader& SystemModuleLoader() { return systemLoader; }

ErrorInfo* LoadWinInet(const ModuleLoader& loader) {
  winInet.module = LoadModule(loader);
  if (!winInet.module) return MakeError(String(u"Could not load wininet.dll"));
  moduleLoader = &loader;
  for (const EntryPoint& entry : entryPoints) {
    void* address = loader.find(winInet.module, entry.name);
    if (!address) {
      loader.release(winInet.module);
      winInet.module = nullptr;
      return MakeError(String(entry.missing));
    }
    entry.store(address);
  }
  // libqorinet keeps the last error of its calls itself; wininet.dll has no such export and uses
  // the system's.
  if (void* lastError = loader.find(winInet.module, "GetLastError")) {
    platform::SetLastErrorSource(reinterpret_cast<DWORD (*)()>(lastError));
  }
  return nullptr;
}

void UnloadWinInet() {
  if (!winInet.module) return;
  platform::SetLastErrorSource(nullptr);
  moduleLoader->release(winInet.module);
  // Empty again, so that a request after TerminateHttp fails as one before InitialiseHttp does.
  winInet = WinInetTable();
}

} // namespace QOR
