#include "LastError.h"

namespace QOR::inet {

namespace {
// Trivially destructible, so the module can be unloaded while threads that called it live on.
thread_local DWORD lastError = 0;
} // namespace

void SetLastError(DWORD code) { lastError = code; }

DWORD LastError() { return lastError; }

} // namespace QOR::inet
