// Code pages, system error texts, paths and the error log.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>

namespace QOR {

// Code pages known everywhere: 0 (the system's: UTF-8 on Linux, the ANSI code page on Windows),
// 65001 (UTF-8), 20127 (US-ASCII), 28591 (ISO 8859-1) and 1252 (Windows Latin 1). Windows also
// knows its own. Characters the code page lacks become '?'.
inline constexpr unsigned CodePageSystem = 0;
inline constexpr unsigned CodePageUtf8 = 65001;

// A new zero-terminated 8-bit text (release it with delete[]). A null text gives null; so does an
// unknown code page. usedDefault, if not null, is set to 1 when a character had no equivalent.
QORXMLU_API char* ConvertToMultibyte(const char16_t* text, unsigned codePage, unsigned* usedDefault);
QORXMLU_API char* ConvertToMultibyte(const wchar_t* text, unsigned codePage, unsigned* usedDefault);
// A new zero-terminated 16-bit text (release it with delete[]). A null text gives null.
QORXMLU_API char16_t* ConvertFromMultibyte(const char* text, unsigned codePage, unsigned* usedDefault);

// The last system error of the calling thread, and its message.
QORXMLU_API DWORD GetLastError();
QORXMLU_API void SetLastError(DWORD code);
// The message of the calling thread's last system error, without a line end at its end.
QORXMLU_API String GetSystemErrMsge();
// The message of a system error code.
QORXMLU_API String GetSystemErrMsge(DWORD code);

// The path without its leading directories ('/' and '\\' both separate).
QORXMLU_API String RemoveLeadPath(String path);

// Where LogAndResetError writes; the default writes one line to stderr. Null restores it.
using ErrorSink = void (*)(const ErrorInfo& error);
QORXMLU_API void SetErrorSink(ErrorSink sink);
// Logs the error chain on one line, deletes it and sets the pointer to null. Null does nothing.
QORXMLU_API void LogAndResetError(ErrorInfo*& error);

} // namespace QOR
