// WinInet's names, types and entry points for the HTTP engine on Linux, as libqorinet declares
// them. The engine includes this header and no other from the system.
#pragma once

#include <qorxmlu/foundation/String.h>

// Calling conventions of the Windows declarations; nothing on Linux.
#ifndef WINAPI
#define WINAPI
#endif
#ifndef CALLBACK
#define CALLBACK
#endif

#if __has_include(<qorinet/wininet.h>)
#include <qorinet/wininet.h>
#else
// The same declarations, for a tree without libqorinet.
#include <cstdint>

extern "C" {
typedef std::uint32_t DWORD;
typedef int BOOL;
typedef std::uintptr_t DWORD_PTR;
typedef std::uint16_t INTERNET_PORT;
typedef void* LPVOID;
typedef DWORD* LPDWORD;
typedef const char* LPCSTR;
typedef const char16_t* LPCWSTR;
typedef void* HINTERNET;

typedef struct _INTERNET_ASYNC_RESULT {
  DWORD_PTR dwResult;
  DWORD dwError;
} INTERNET_ASYNC_RESULT;

typedef struct _INTERNET_BUFFERSA {
  DWORD dwStructSize;
  struct _INTERNET_BUFFERSA* Next;
  LPCSTR lpcszHeader;
  DWORD dwHeadersLength;
  DWORD dwHeadersTotal;
  LPVOID lpvBuffer;
  DWORD dwBufferLength;
  DWORD dwBufferTotal;
  DWORD dwOffsetLow;
  DWORD dwOffsetHigh;
} INTERNET_BUFFERSA, *LPINTERNET_BUFFERSA;

typedef struct _INTERNET_BUFFERSW {
  DWORD dwStructSize;
  struct _INTERNET_BUFFERSW* Next;
  LPCWSTR lpcszHeader;
  DWORD dwHeadersLength;
  DWORD dwHeadersTotal;
  LPVOID lpvBuffer;
  DWORD dwBufferLength;
  DWORD dwBufferTotal;
  DWORD dwOffsetLow;
  DWORD dwOffsetHigh;
} INTERNET_BUFFERSW, *LPINTERNET_BUFFERSW;

typedef void(CALLBACK* INTERNET_STATUS_CALLBACK)(HINTERNET hInternet, DWORD_PTR dwContext, DWORD dwInternetStatus,
                                                 LPVOID lpvStatusInformation, DWORD dwStatusInformationLength);

HINTERNET WINAPI InternetOpenW(LPCWSTR lpszAgent, DWORD dwAccessType, LPCWSTR lpszProxy, LPCWSTR lpszProxyBypass,
                               DWORD dwFlags);
BOOL WINAPI InternetCloseHandle(HINTERNET hInternet);
INTERNET_STATUS_CALLBACK WINAPI InternetSetStatusCallbackW(HINTERNET hInternet,
                                                           INTERNET_STATUS_CALLBACK lpfnInternetCallback);
HINTERNET WINAPI HttpOpenRequestA(HINTERNET hConnect, LPCSTR lpszVerb, LPCSTR lpszObjectName, LPCSTR lpszVersion,
                                  LPCSTR lpszReferrer, LPCSTR* lplpszAcceptTypes, DWORD dwFlags, DWORD_PTR dwContext);
BOOL WINAPI InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, LPVOID lpBuffer, DWORD dwBufferLength);
BOOL WINAPI InternetWriteFile(HINTERNET hFile, const void* lpBuffer, DWORD dwNumberOfBytesToWrite,
                              LPDWORD lpdwNumberOfBytesWritten);
BOOL WINAPI InternetReadFileExA(HINTERNET hFile, LPINTERNET_BUFFERSA lpBuffersOut, DWORD dwFlags, DWORD_PTR dwContext);
BOOL WINAPI HttpEndRequestW(HINTERNET hRequest, LPINTERNET_BUFFERSW lpBuffersOut, DWORD dwFlags, DWORD_PTR dwContext);
HINTERNET WINAPI InternetConnectW(HINTERNET hInternet, LPCWSTR lpszServerName, INTERNET_PORT nServerPort,
                                  LPCWSTR lpszUserName, LPCWSTR lpszPassword, DWORD dwService, DWORD dwFlags,
                                  DWORD_PTR dwContext);
BOOL WINAPI HttpSendRequestExW(HINTERNET hRequest, LPINTERNET_BUFFERSW lpBuffersIn, LPINTERNET_BUFFERSW lpBuffersOut,
                               DWORD dwFlags, DWORD_PTR dwContext);
BOOL WINAPI HttpAddRequestHeadersW(HINTERNET hRequest, LPCWSTR lpszHeaders, DWORD dwHeadersLength, DWORD dwModifiers);
}

#endif

namespace QOR::inet {

// The text of a String as the W entry points take it (UTF-16 units).
inline LPCWSTR WideArg(const String& text) { return text.Data(); }

} // namespace QOR::inet
