// The calling thread's last error, as GetLastError reports it.
#pragma once

#include <qorinet/wininet.h>

namespace QOR::inet {

// Stores a code for GetLastError on this thread. A successful call leaves the last error alone.
void SetLastError(DWORD code);
// The code stored last on this thread (0 if none yet).
DWORD LastError();

// Stores `code` and returns FALSE, the common tail of a failed BOOL entry point.
inline BOOL Fail(DWORD code) {
  SetLastError(code);
  return FALSE;
}

} // namespace QOR::inet
