// WinInet's names, types and entry points for the HTTP engine, from the system's own headers.
// The engine includes this header and no other from the system.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <wininet.h>

#include <qorxmlu/foundation/String.h>

namespace QOR::inet {

// The text of a String as the W entry points take it.
inline LPCWSTR WideArg(const String& text) { return text.WStr<wchar_t>(); }

} // namespace QOR::inet
