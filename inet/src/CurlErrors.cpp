#include "CurlErrors.h"

#include <openssl/x509_vfy.h>

namespace QOR::inet {

namespace {

DWORD CertificateError(long verifyResult) {
  switch (verifyResult) {
  // The chain was good, so libcurl's own host-name check failed (it leaves 0 or, after a
  // mismatch, X509_V_ERR_UNSPECIFIED behind).
  case X509_V_OK:
  case X509_V_ERR_UNSPECIFIED:
  case X509_V_ERR_HOSTNAME_MISMATCH:
  case X509_V_ERR_IP_ADDRESS_MISMATCH:
    return ERROR_INTERNET_SEC_CERT_CN_INVALID;
  case X509_V_ERR_CERT_HAS_EXPIRED:
  case X509_V_ERR_CERT_NOT_YET_VALID:
  case X509_V_ERR_CRL_HAS_EXPIRED:
  case X509_V_ERR_CRL_NOT_YET_VALID:
    return ERROR_INTERNET_SEC_CERT_DATE_INVALID;
  default:
    return ERROR_INTERNET_INVALID_CA;
  }
}

} // namespace

DWORD WinInetErrorOf(CURLcode code, long verifyResult) {
  switch (code) {
  case CURLE_OK:
    return 0;
  case CURLE_URL_MALFORMAT:
    return ERROR_INTERNET_INVALID_URL;
  case CURLE_COULDNT_RESOLVE_PROXY:
  case CURLE_COULDNT_RESOLVE_HOST:
    return ERROR_INTERNET_NAME_NOT_RESOLVED;
  case CURLE_COULDNT_CONNECT:
    return ERROR_INTERNET_CANNOT_CONNECT;
  // The layer only ever asks for http and https, so libcurl's "unsupported protocol" means a
  // reply without a status line (HTTP/0.9, which it refuses): no valid reply.
  case CURLE_UNSUPPORTED_PROTOCOL:
  case CURLE_WEIRD_SERVER_REPLY:
  case CURLE_GOT_NOTHING:
  case CURLE_HTTP2:
  case CURLE_BAD_CONTENT_ENCODING:
    return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  case CURLE_PARTIAL_FILE:
    return ERROR_INTERNET_CONNECTION_ABORTED;
  case CURLE_SEND_ERROR:
  case CURLE_RECV_ERROR:
  case CURLE_SEND_FAIL_REWIND:
    return ERROR_INTERNET_CONNECTION_RESET;
  case CURLE_OPERATION_TIMEDOUT:
    return ERROR_INTERNET_TIMEOUT;
  case CURLE_ABORTED_BY_CALLBACK:
    return ERROR_INTERNET_OPERATION_CANCELLED;
  case CURLE_PEER_FAILED_VERIFICATION:
    return CertificateError(verifyResult);
  case CURLE_SSL_CACERT_BADFILE:
  case CURLE_SSL_ISSUER_ERROR:
    return ERROR_INTERNET_INVALID_CA;
  case CURLE_SSL_CONNECT_ERROR:
  case CURLE_SSL_CERTPROBLEM:
  case CURLE_SSL_CIPHER:
  case CURLE_SSL_ENGINE_NOTFOUND:
  case CURLE_SSL_ENGINE_SETFAILED:
  case CURLE_SSL_SHUTDOWN_FAILED:
  case CURLE_SSL_CRL_BADFILE:
  case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
  case CURLE_SSL_INVALIDCERTSTATUS:
  case CURLE_USE_SSL_FAILED:
    return ERROR_INTERNET_SECURITY_CHANNEL_ERROR;
  case CURLE_OUT_OF_MEMORY:
    return ERROR_NOT_ENOUGH_MEMORY;
  default:
    return ERROR_INTERNET_INTERNAL_ERROR;
  }
}

} // namespace QOR::inet
