// libcurl's result codes in WinInet's terms.
#pragma once

#include <qorinet/wininet.h>

#include <curl/curl.h>

namespace QOR::inet {

// The WinInet error for a failed transfer. `verifyResult` is OpenSSL's certificate verdict
// (CURLINFO_SSL_VERIFYRESULT), which tells an unknown CA, a bad date and a wrong name apart.
DWORD WinInetErrorOf(CURLcode code, long verifyResult);

} // namespace QOR::inet
