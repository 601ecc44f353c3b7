// The words of WinInet's error codes.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>

namespace QOR {

// True if the code lies in WinInet's range (12000 to 12192); text then holds its words, or
// "Unspecified Internet error" for a code without a row. Otherwise text is left alone.
bool InternetErrorText(DWORD code, String& text);

// A new error: prefix followed by the words of the code. Codes outside WinInet's range take the
// message of the calling thread's last system error, whatever code that is.
ErrorInfo* MakeInternetError(String prefix, DWORD code);

} // namespace QOR
