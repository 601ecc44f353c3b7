// The process-wide table of WinInet's entry points, filled by LoadWinInet.
//
// The engine makes every WinInet call through this table. There is no lock: the table is written
// only by LoadWinInet and UnloadWinInet, while no request runs, and only read otherwise. Before
// LoadWinInet and after UnloadWinInet every pointer is null.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>

#include "platform/Platform.h"
#include "WinInetApi.h"

namespace QOR {

struct WinInetTable {
  // The loaded module; null while WinInet is not loaded.
  platform::ModuleHandle module = nullptr;

  decltype(&::InternetOpenW) InternetOpenW = nullptr;
  decltype(&::InternetCloseHandle) InternetCloseHandle = nullptr;
  decltype(&::InternetSetStatusCallbackW) InternetSetStatusCallbackW = nullptr;
  decltype(&::HttpOpenRequestA) HttpOpenRequestA = nullptr;
  // Resolved and required, though the engine sets no option.
  decltype(&::InternetSetOptionW) InternetSetOptionW = nullptr;
  decltype(&::InternetWriteFile) InternetWriteFile = nullptr;
  decltype(&::InternetReadFileExA) InternetReadFileExA = nullptr;
  decltype(&::HttpEndRequestW) HttpEndRequestW = nullptr;
  decltype(&::InternetConnectW) InternetConnectW = nullptr;
  decltype(&::HttpSendRequestExW) HttpSendRequestExW = nullptr;
  decltype(&::HttpAddRequestHeadersW) HttpAddRequestHeadersW = nullptr;
};

extern WinInetTable winInet;

// The three system calls behind the load, so that the loop over the entry points can run on
// stand-in modules.
struct ModuleLoader {
  platform::ModuleHandle (*load)(const String& name);
  void* (*find)(platform::ModuleHandle module, const char* name);
  bool (*release)(platform::ModuleHandle module);
};

// The system's loader.
const ModuleLoader& SystemModuleLoader();

// Loads WinInet's module (libqorinet on Linux: beside this library first, then by plain name)
// and resolves the eleven entry points in their fixed order. On the first missing one the module
// is released again and the error names it; pointers resolved before it stay in the table.
ErrorInfo* LoadWinInet(const ModuleLoader& loader = SystemModuleLoader());
// Releases the module if one is loaded. The pointers are left as they are.
void UnloadWinInet();

} // namespace QOR
