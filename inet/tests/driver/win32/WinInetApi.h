// The WinInet API as the test driver sees it on Windows: the system's header.
#pragma once

#include <windows.h>
#include <wininet.h>
