// The WinInet API as the test driver sees it on Linux: libqorinet's header.
#pragma once

#include <qorinet/wininet.h>

#ifndef CALLBACK
#define CALLBACK
#endif
