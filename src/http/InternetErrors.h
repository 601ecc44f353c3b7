// The words of WinInet's error codes.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Types.h>

#include <cstddef>

namespace QOR {

// WinInet is told a body's length, and the engine counts a reply, in 32 bits: neither may reach
// 4 GiB. Both are refused with these words rather than let the count wrap.
inline constexpr std::size_t largestTransfer = 0xFFFFFFFF;
inline constexpr const char16_t* bodyTooLarge = u"Request body too large: 4 GiB or more";
inline constexpr const char16_t* replyTooLarge = u"Reply too large: 4 GiB or more";
// A body sent from its upload file: the file changed size under the send (the path and a quote
// follow), or a derived GetRequestBuffer changed the block that goes before the file's bytes.
inline constexpr const char16_t* uploadFileChanged = u"Upload file changed size while it was sent '";
inline constexpr const char16_t* uploadBodyChanged =
    u"Request body changed around an upload file that is sent from the file";

// True if the code lies in WinInet's range (12000 to 12192); text then holds its words, or
// "Unspecified Internet error" for a code without a row. Otherwise text is left alone.
bool InternetErrorText(DWORD code, String& text);

// A new error: prefix followed by the words of the code. Codes outside WinInet's range take the
// message of the calling thread's last system error, whatever code that is.
ErrorInfo* MakeInternetError(String prefix, DWORD code);

} // namespace QOR
