// The exported entry points: argument checks, the handle lookup, and the last error. The work
// itself is in the handle classes.
#include "ConnectHandle.h"
#include "HandleTable.h"
#include "LastError.h"
#include "RequestHandle.h"
#include "RootHandle.h"
#include "Text.h"

#include <qorinet/wininet.h>

#include <new>

namespace QOR::inet {
namespace {

std::shared_ptr<Handle> LookupAny(HINTERNET value) {
  std::shared_ptr<Handle> handle = HandleTable::Find(value);
  return handle && !handle->IsClosed() ? handle : nullptr;
}

// The live request behind a value. Otherwise null, with `error` set to what the call reports: as
// in WinInet, the header, send and end calls say "incorrect handle type" for a dead handle, the
// read and write calls "invalid handle".
std::shared_ptr<RequestHandle> LookupRequest(HINTERNET value, DWORD deadHandleError, DWORD& error) {
  std::shared_ptr<Handle> handle = LookupAny(value);
  if (handle && handle->GetKind() == Handle::Kind::Request) return std::static_pointer_cast<RequestHandle>(handle);
  error = handle ? ERROR_INTERNET_INCORRECT_HANDLE_TYPE : deadHandleError;
  return nullptr;
}

// The WinInet result of a request operation: TRUE, or FALSE with the error (997 when pending).
BOOL Outcome(DWORD error) { return error == 0 ? TRUE : Fail(error); }

// The W text of `length` units, or up to the NUL when length is (DWORD)-1.
std::string Utf8Of(LPCWSTR text, DWORD length) {
  return Utf8FromUtf16(text, length == static_cast<DWORD>(-1) ? std::u16string_view::npos : length);
}

std::string TextOf(LPCSTR text) { return text ? std::string(text) : std::string(); }

} // namespace
} // namespace QOR::inet

using namespace QOR::inet;

extern "C" {

QORINET_API HINTERNET InternetOpenW(LPCWSTR lpszAgent, DWORD dwAccessType, LPCWSTR lpszProxy,
                                    LPCWSTR lpszProxyBypass, DWORD dwFlags) {
  if (!(dwFlags & INTERNET_FLAG_ASYNC)) {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return nullptr;
  }
  if (dwAccessType != INTERNET_OPEN_TYPE_PRECONFIG && dwAccessType != INTERNET_OPEN_TYPE_DIRECT &&
      dwAccessType != INTERNET_OPEN_TYPE_PROXY) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  try {
    Session::Settings settings{Utf8FromUtf16(lpszAgent), dwAccessType, Utf8FromUtf16(lpszProxy),
                               Utf8FromUtf16(lpszProxyBypass)};
    std::shared_ptr<Session> session = Session::Start(std::move(settings));
    if (!session) {
      SetLastError(ERROR_INTERNET_INTERNAL_ERROR);
      return nullptr;
    }
    return Handle::Publish(std::make_shared<RootHandle>(std::move(session)));
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

QORINET_API BOOL InternetCloseHandle(HINTERNET hInternet) {
  std::shared_ptr<Handle> handle = LookupAny(hInternet);
  if (!handle || !handle->Close()) return Fail(ERROR_INVALID_HANDLE);
  return TRUE;
}

QORINET_API INTERNET_STATUS_CALLBACK InternetSetStatusCallbackW(HINTERNET hInternet,
                                                                INTERNET_STATUS_CALLBACK lpfnInternetCallback) {
  std::shared_ptr<Handle> handle = LookupAny(hInternet);
  if (!handle) {
    SetLastError(ERROR_INVALID_HANDLE);
    return INTERNET_INVALID_STATUS_CALLBACK;
  }
  return handle->ExchangeCallback(lpfnInternetCallback);
}

QORINET_API HINTERNET InternetConnectW(HINTERNET hInternet, LPCWSTR lpszServerName, INTERNET_PORT nServerPort,
                                       LPCWSTR, LPCWSTR, DWORD dwService, DWORD, DWORD_PTR dwContext) {
  std::shared_ptr<Handle> root = LookupAny(hInternet);
  if (!root) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  if (root->GetKind() != Handle::Kind::Root) {
    SetLastError(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
    return nullptr;
  }
  std::u16string host;
  unsigned port = nServerPort;
  if (dwService != INTERNET_SERVICE_HTTP || !lpszServerName ||
      !ConnectHandle::ParseServer(lpszServerName, host, port)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  try {
    auto connection = std::make_shared<ConnectHandle>(root, host, port, dwContext);
    HINTERNET value = Handle::Publish(connection);
    if (!value) SetLastError(ERROR_INVALID_HANDLE);
    return value;
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

QORINET_API HINTERNET HttpOpenRequestA(HINTERNET hConnect, LPCSTR lpszVerb, LPCSTR lpszObjectName, LPCSTR,
                                       LPCSTR lpszReferrer, LPCSTR* lplpszAcceptTypes, DWORD dwFlags,
                                       DWORD_PTR dwContext) {
  std::shared_ptr<Handle> parent = LookupAny(hConnect);
  if (!parent) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  if (parent->GetKind() != Handle::Kind::Connect) {
    SetLastError(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
    return nullptr;
  }
  try {
    // The Accept header's value, built in one piece: the list is long and comes with every request.
    std::string accept;
    for (LPCSTR* type = lplpszAcceptTypes; type && *type; ++type) {
      if (!**type) continue;
      if (!accept.empty()) accept += ", ";
      accept += *type;
    }
    auto request = std::make_shared<RequestHandle>(std::static_pointer_cast<ConnectHandle>(parent),
                                                    TextOf(lpszVerb), TextOf(lpszObjectName),
                                                    TextOf(lpszReferrer), std::move(accept), dwFlags, dwContext);
    HINTERNET value = Handle::Publish(request);
    if (!value) SetLastError(ERROR_INVALID_HANDLE);
    return value;
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

QORINET_API BOOL InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, LPVOID lpBuffer, DWORD dwBufferLength) {
  std::shared_ptr<Handle> handle = LookupAny(hInternet);
  if (!handle) return Fail(ERROR_INVALID_HANDLE);
  if (dwOption != INTERNET_OPTION_CONNECT_TIMEOUT) return Fail(ERROR_INTERNET_INVALID_OPTION);
  if (!lpBuffer || dwBufferLength < sizeof(DWORD)) return Fail(ERROR_INSUFFICIENT_BUFFER);
  handle->SetConnectTimeout(*static_cast<const DWORD*>(lpBuffer));
  return TRUE;
}

QORINET_API BOOL InternetWriteFile(HINTERNET hFile, LPCVOID lpBuffer, DWORD dwNumberOfBytesToWrite,
                                   LPDWORD lpdwNumberOfBytesWritten) {
  DWORD error = 0;
  auto request = LookupRequest(hFile, ERROR_INVALID_HANDLE, error);
  if (!request) return Fail(error);
  if (!lpdwNumberOfBytesWritten || (!lpBuffer && dwNumberOfBytesToWrite > 0)) return Fail(ERROR_INVALID_PARAMETER);
  return Outcome(request->Write(lpBuffer, dwNumberOfBytesToWrite, lpdwNumberOfBytesWritten));
}

QORINET_API BOOL InternetReadFileExA(HINTERNET hFile, LPINTERNET_BUFFERSA lpBuffersOut, DWORD, DWORD_PTR) {
  DWORD error = 0;
  auto request = LookupRequest(hFile, ERROR_INVALID_HANDLE, error);
  if (!request) return Fail(error);
  if (!lpBuffersOut) return Fail(ERROR_INVALID_PARAMETER);
  return Outcome(request->Read(lpBuffersOut));
}

QORINET_API BOOL HttpEndRequestW(HINTERNET hRequest, LPINTERNET_BUFFERSW, DWORD, DWORD_PTR) {
  DWORD error = 0;
  auto request = LookupRequest(hRequest, ERROR_INTERNET_INCORRECT_HANDLE_TYPE, error);
  if (!request) return Fail(error);
  return Outcome(request->End());
}

QORINET_API BOOL HttpSendRequestExW(HINTERNET hRequest, LPINTERNET_BUFFERSW lpBuffersIn, LPINTERNET_BUFFERSW,
                                    DWORD, DWORD_PTR) {
  DWORD error = 0;
  auto request = LookupRequest(hRequest, ERROR_INTERNET_INCORRECT_HANDLE_TYPE, error);
  if (!request) return Fail(error);
  DWORD total = 0;
  if (lpBuffersIn) {
    // Body data in the block itself is not taken: the body goes through InternetWriteFile.
    if (lpBuffersIn->lpvBuffer && lpBuffersIn->dwBufferLength > 0) return Fail(ERROR_INVALID_PARAMETER);
    if (lpBuffersIn->lpcszHeader) {
      DWORD length = lpBuffersIn->dwHeadersLength ? lpBuffersIn->dwHeadersLength : static_cast<DWORD>(-1);
      error = request->AddHeaders(Utf8Of(lpBuffersIn->lpcszHeader, length), HTTP_ADDREQ_FLAG_ADD);
      if (error) return Fail(error);
    }
    total = lpBuffersIn->dwBufferTotal;
  }
  return Outcome(request->Send(total));
}

QORINET_API BOOL HttpAddRequestHeadersW(HINTERNET hRequest, LPCWSTR lpszHeaders, DWORD dwHeadersLength,
                                        DWORD dwModifiers) {
  DWORD error = 0;
  auto request = LookupRequest(hRequest, ERROR_INTERNET_INCORRECT_HANDLE_TYPE, error);
  if (!request) return Fail(error);
  if (!lpszHeaders) return Fail(ERROR_INVALID_PARAMETER);
  return Outcome(request->AddHeaders(Utf8Of(lpszHeaders, dwHeadersLength), dwModifiers));
}

QORINET_API DWORD GetLastError(void) { return LastError(); }

} // extern "C"
