/* libqorinet: the WinInet API (asynchronous mode) on Linux, over libcurl.
 *
 * Names, signatures, constants and structures are WinInet's, so code written for <wininet.h>
 * compiles against this header unchanged. The W entry points take UTF-16 text in 16-bit units
 * (char16_t), never 32-bit wchar_t. GetLastError returns the calling thread's last error of this
 * library; a successful call leaves it as it was.
 *
 * Only asynchronous mode is offered: a root handle must be opened with INTERNET_FLAG_ASYNC. Status
 * callbacks of pending work run on the root handle's event-loop thread; HANDLE_CREATED and a
 * HANDLE_CLOSING with nothing in flight come on the calling thread, inside the call. */
#ifndef QORINET_WININET_H
#define QORINET_WININET_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(QORINET_BUILDING)
#define QORINET_API __attribute__((visibility("default")))
#else
#define QORINET_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int BOOL;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uintptr_t DWORD_PTR;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef DWORD* LPDWORD;
typedef char16_t WCHAR;
typedef const WCHAR* LPCWSTR;
typedef const char* LPCSTR;
typedef void* HINTERNET;
typedef WORD INTERNET_PORT;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef struct _INTERNET_ASYNC_RESULT {
  DWORD_PTR dwResult;
  DWORD dwError;
} INTERNET_ASYNC_RESULT, *LPINTERNET_ASYNC_RESULT;

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

typedef void (*INTERNET_STATUS_CALLBACK)(HINTERNET hInternet, DWORD_PTR dwContext, DWORD dwInternetStatus,
                                         LPVOID lpvStatusInformation, DWORD dwStatusInformationLength);
#define INTERNET_INVALID_STATUS_CALLBACK ((INTERNET_STATUS_CALLBACK)(intptr_t)-1)

/* InternetOpenW */
#define INTERNET_OPEN_TYPE_PRECONFIG 0
#define INTERNET_OPEN_TYPE_DIRECT 1
#define INTERNET_OPEN_TYPE_PROXY 3

/* InternetConnectW */
#define INTERNET_INVALID_PORT_NUMBER 0
#define INTERNET_DEFAULT_HTTP_PORT 80
#define INTERNET_DEFAULT_HTTPS_PORT 443
#define INTERNET_SERVICE_HTTP 3

/* Handle and request flags */
#define INTERNET_FLAG_RELOAD 0x80000000
#define INTERNET_FLAG_ASYNC 0x10000000
#define INTERNET_FLAG_NO_CACHE_WRITE 0x04000000
#define INTERNET_FLAG_SECURE 0x00800000
#define INTERNET_FLAG_KEEP_CONNECTION 0x00400000
#define INTERNET_FLAG_NO_AUTO_REDIRECT 0x00200000
#define INTERNET_FLAG_NO_COOKIES 0x00080000
#define INTERNET_FLAG_IGNORE_CERT_DATE_INVALID 0x00002000
#define INTERNET_FLAG_IGNORE_CERT_CN_INVALID 0x00001000
#define INTERNET_FLAG_PRAGMA_NOCACHE 0x00000100

/* HttpAddRequestHeadersW */
#define HTTP_ADDREQ_INDEX_MASK 0x0000FFFF
#define HTTP_ADDREQ_FLAGS_MASK 0xFFFF0000
#define HTTP_ADDREQ_FLAG_ADD_IF_NEW 0x10000000
#define HTTP_ADDREQ_FLAG_ADD 0x20000000
#define HTTP_ADDREQ_FLAG_COALESCE_WITH_COMMA 0x40000000
#define HTTP_ADDREQ_FLAG_COALESCE_WITH_SEMICOLON 0x01000000
#define HTTP_ADDREQ_FLAG_COALESCE HTTP_ADDREQ_FLAG_COALESCE_WITH_COMMA
#define HTTP_ADDREQ_FLAG_REPLACE 0x80000000

/* HttpSendRequestExW, HttpEndRequestW, InternetReadFileExA */
#define WININET_API_FLAG_ASYNC 0x00000001
#define WININET_API_FLAG_SYNC 0x00000004
#define WININET_API_FLAG_USE_CONTEXT 0x00000008
#define HSR_ASYNC WININET_API_FLAG_ASYNC
#define HSR_SYNC WININET_API_FLAG_SYNC
#define HSR_USE_CONTEXT WININET_API_FLAG_USE_CONTEXT
#define HSR_INITIATE 0x00000008
#define IRF_ASYNC WININET_API_FLAG_ASYNC
#define IRF_SYNC WININET_API_FLAG_SYNC
#define IRF_USE_CONTEXT WININET_API_FLAG_USE_CONTEXT
#define IRF_NO_WAIT 0x00000008

/* InternetSetOptionW */
#define INTERNET_OPTION_CONNECT_TIMEOUT 2

/* Status values of the callback */
#define INTERNET_STATUS_RESOLVING_NAME 10
#define INTERNET_STATUS_NAME_RESOLVED 11
#define INTERNET_STATUS_CONNECTING_TO_SERVER 20
#define INTERNET_STATUS_CONNECTED_TO_SERVER 21
#define INTERNET_STATUS_SENDING_REQUEST 30
#define INTERNET_STATUS_REQUEST_SENT 31
#define INTERNET_STATUS_RECEIVING_RESPONSE 40
#define INTERNET_STATUS_RESPONSE_RECEIVED 41
#define INTERNET_STATUS_CLOSING_CONNECTION 50
#define INTERNET_STATUS_CONNECTION_CLOSED 51
#define INTERNET_STATUS_HANDLE_CREATED 60
#define INTERNET_STATUS_HANDLE_CLOSING 70
#define INTERNET_STATUS_REQUEST_COMPLETE 100

/* Error codes: the Win32 ones this library sets, then WinInet's range */
#define ERROR_SUCCESS 0
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_INVALID_PARAMETER 87
#define ERROR_CALL_NOT_IMPLEMENTED 120
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_IO_PENDING 997

#define INTERNET_ERROR_BASE 12000
#define ERROR_INTERNET_TIMEOUT (INTERNET_ERROR_BASE + 2)
#define ERROR_INTERNET_INTERNAL_ERROR (INTERNET_ERROR_BASE + 4)
#define ERROR_INTERNET_INVALID_URL (INTERNET_ERROR_BASE + 5)
#define ERROR_INTERNET_UNRECOGNIZED_SCHEME (INTERNET_ERROR_BASE + 6)
#define ERROR_INTERNET_NAME_NOT_RESOLVED (INTERNET_ERROR_BASE + 7)
#define ERROR_INTERNET_INVALID_OPTION (INTERNET_ERROR_BASE + 9)
#define ERROR_INTERNET_INVALID_OPERATION (INTERNET_ERROR_BASE + 16)
#define ERROR_INTERNET_OPERATION_CANCELLED (INTERNET_ERROR_BASE + 17)
#define ERROR_INTERNET_INCORRECT_HANDLE_TYPE (INTERNET_ERROR_BASE + 18)
#define ERROR_INTERNET_INCORRECT_HANDLE_STATE (INTERNET_ERROR_BASE + 19)
#define ERROR_INTERNET_CANNOT_CONNECT (INTERNET_ERROR_BASE + 29)
#define ERROR_INTERNET_CONNECTION_ABORTED (INTERNET_ERROR_BASE + 30)
#define ERROR_INTERNET_CONNECTION_RESET (INTERNET_ERROR_BASE + 31)
#define ERROR_INTERNET_SEC_CERT_DATE_INVALID (INTERNET_ERROR_BASE + 37)
#define ERROR_INTERNET_SEC_CERT_CN_INVALID (INTERNET_ERROR_BASE + 38)
#define ERROR_INTERNET_INVALID_CA (INTERNET_ERROR_BASE + 45)
#define ERROR_INTERNET_SEC_CERT_ERRORS (INTERNET_ERROR_BASE + 55)
#define ERROR_HTTP_HEADER_NOT_FOUND (INTERNET_ERROR_BASE + 150)
#define ERROR_HTTP_INVALID_SERVER_RESPONSE (INTERNET_ERROR_BASE + 152)
#define ERROR_HTTP_INVALID_HEADER (INTERNET_ERROR_BASE + 153)
#define ERROR_HTTP_HEADER_ALREADY_EXISTS (INTERNET_ERROR_BASE + 155)
#define ERROR_INTERNET_SECURITY_CHANNEL_ERROR (INTERNET_ERROR_BASE + 157)

/* Opens a root handle with its own event-loop thread; NULL on failure. */
QORINET_API HINTERNET InternetOpenW(LPCWSTR lpszAgent, DWORD dwAccessType, LPCWSTR lpszProxy,
                                    LPCWSTR lpszProxyBypass, DWORD dwFlags);
/* Closes any handle; a pending call on it completes with ERROR_INTERNET_OPERATION_CANCELLED first. */
QORINET_API BOOL InternetCloseHandle(HINTERNET hInternet);
/* Installs the status callback of a handle (inherited by handles made from it); returns the old one. */
QORINET_API INTERNET_STATUS_CALLBACK InternetSetStatusCallbackW(HINTERNET hInternet,
                                                                INTERNET_STATUS_CALLBACK lpfnInternetCallback);
/* Makes a request handle under a connection handle; touches no network. */
QORINET_API HINTERNET HttpOpenRequestA(HINTERNET hConnect, LPCSTR lpszVerb, LPCSTR lpszObjectName,
                                       LPCSTR lpszVersion, LPCSTR lpszReferrer, LPCSTR* lplpszAcceptTypes,
                                       DWORD dwFlags, DWORD_PTR dwContext);
/* Sets an option of a handle; only INTERNET_OPTION_CONNECT_TIMEOUT (milliseconds) is known. */
QORINET_API BOOL InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, LPVOID lpBuffer, DWORD dwBufferLength);
/* Lends a part of the announced body; pends until the transport has taken all of it. */
QORINET_API BOOL InternetWriteFile(HINTERNET hFile, LPCVOID lpBuffer, DWORD dwNumberOfBytesToWrite,
                                   LPDWORD lpdwNumberOfBytesWritten);
/* Reads the reply body; 0 bytes at its end. Completes when the buffer is full or the body ends. */
QORINET_API BOOL InternetReadFileExA(HINTERNET hFile, LPINTERNET_BUFFERSA lpBuffersOut, DWORD dwFlags,
                                     DWORD_PTR dwContext);
/* Ends the body; pends until the status line and headers of the reply are in. */
QORINET_API BOOL HttpEndRequestW(HINTERNET hRequest, LPINTERNET_BUFFERSW lpBuffersOut, DWORD dwFlags,
                                 DWORD_PTR dwContext);
/* Makes a connection handle for "host", "host:port" or "[v6-address]:port"; touches no network. */
QORINET_API HINTERNET InternetConnectW(HINTERNET hInternet, LPCWSTR lpszServerName, INTERNET_PORT nServerPort,
                                       LPCWSTR lpszUserName, LPCWSTR lpszPassword, DWORD dwService,
                                       DWORD dwFlags, DWORD_PTR dwContext);
/* Connects and sends the request head; pends. dwBufferTotal of lpBuffersIn is the Content-Length. */
QORINET_API BOOL HttpSendRequestExW(HINTERNET hRequest, LPINTERNET_BUFFERSW lpBuffersIn,
                                    LPINTERNET_BUFFERSW lpBuffersOut, DWORD dwFlags, DWORD_PTR dwContext);
/* Adds, replaces, removes or merges request header lines (CR LF separated; length -1 = to the NUL). */
QORINET_API BOOL HttpAddRequestHeadersW(HINTERNET hRequest, LPCWSTR lpszHeaders, DWORD dwHeadersLength,
                                        DWORD dwModifiers);
/* The calling thread's last error of this library. */
QORINET_API DWORD GetLastError(void);

#ifdef __cplusplus
}
#endif

#endif /* QORINET_WININET_H */
