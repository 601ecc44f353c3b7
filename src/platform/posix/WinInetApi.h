// WinInet's names, types and entry points for the HTTP engine on Linux, as libqorinet declares
// them. The engine includes this header and no other from the system.
#pragma once

#include <qorinet/wininet.h>

#include <qorxmlu/foundation/String.h>

// Calling conventions of the Windows declarations; nothing on Linux.
#ifndef WINAPI
#define WINAPI
#endif
#ifndef CALLBACK
#define CALLBACK
#endif

namespace QOR::inet {

// The text of a String as the W entry points take it (UTF-16 units).
inline LPCWSTR WideArg(const String& text) { return text.Data(); }

} // namespace QOR::inet
