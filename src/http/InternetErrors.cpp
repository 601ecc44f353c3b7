#include "http/InternetErrors.h"

#include <qorxmlu/foundation/Utility.h>

#include <algorithm>
#include <iterator>

namespace QOR {

namespace {

struct CodeText {
  DWORD code;
  const char16_t* text;
};

// In ascending order of code. Hosts show and match these words; keep them exactly as they are.
constexpr CodeText internetErrors[] = {
    {12001, u"INTERNET OUT OF HANDLES"},
    {12002, u"INTERNET_TIMEOUT"},
    {12003, u"EXTENDED ERROR"},
    {12004, u"INTERNET INTERNAL ERROR"},
    {12005, u"INVALID URL"},
    {12006, u"INTERNET UNRECOGNIZED SCHEME"},
    {12007, u"Problem accessing the Internet. UNRESOLVED URL"},
    {12008, u"INTERNET PROTOCOL NOT FOUND"},
    {12009, u"INVALID OPTION"},
    {12010, u"BAD OPTION LENGTH"},
    {12011, u"OPTION NOT SETTABLE"},
    {12012, u"INTERNET SHUTDOWN"},
    {12013, u"INCORRECT USER NAME"},
    {12014, u"INCORRECT PASSWORD"},
    {12015, u"LOGIN FAILURE"},
    {12016, u"INVALID OPERATION"},
    {12017, u"OPERATION CANCELLED"},
    {12018, u"INCORRECT HANDLE TYPE"},
    {12019, u"INCORRECT HANDLE STATE"},
    {12020, u"NOT PROXY REQUEST"},
    {12021, u"REGISTRY VALUE NOT FOUND"},
    {12022, u"BAD REGISTRY PARAMETER"},
    {12023, u"NO DIRECT ACCESS"},
    {12024, u"INTERNET NO CONTEXT"},
    {12025, u"INTERNET NO CALLBACK"},
    {12026, u"INTERNET REQUEST PENDING"},
    {12027, u"INTERNET INCORRECT FORMAT"},
    {12028, u"ITEM NOT FOUND"},
    {12029, u"CANNOT CONNECT"},
    {12030, u"CONNECTION ABORTED"},
    {12031, u"CONNECTION RESET"},
    {12032, u"INTERNET FORCE RETRY"},
    {12033, u"INVALID PROXY REQUEST"},
    {12034, u"INTERNET NEED UI"},
    {12036, u"INTERNET HANDLE EXISTS"},
    {12037, u"INTERNET SEC CERT DATE INVALID"},
    {12038, u"INTERNET SEC CERT CN INVALID"},
    {12039, u"HTTP TO_HTTPS ON REDIR"},
    {12040, u"HTTPS TO HTTP ON REDIR"},
    {12041, u"INTERNET MIXED SECURITY"},
    {12042, u"INTERNET CHG POST IS NON SECURE"},
    {12043, u"INTERNET POST IS NON SECURE"},
    {12044, u"INTERNET CLIENT _AUTH CERT NEEDED"},
    {12045, u"INTERNET INVALID CA"},
    {12046, u"INTERNET CLIENT AUTH  NOT SETUP"},
    {12047, u"INTERNET ASYNC THREAD FAILED"},
    {12048, u"INTERNET_REDIRECT_SCHEME_CHANGE"},
    {12049, u"INTERNET DIALOG PENDING"},
    {12050, u"INTERNET RETRY DIALOG"},
    {12052, u"INTERNET HTTPS HTTP SUBMIT REDIR"},
    {12053, u"INTERNET INSERT CDROM"},
    {12110, u"FTP TRANSFER IN PROGRESS"},
    {12111, u"FTP DROPPED"},
    {12112, u"FTP NO PASSIVE MODE"},
    {12150, u"HTTP HEADER NOT FOUND"},
    {12151, u"HTTP DOWNLEVEL SERVER"},
    {12152, u"INVALID SERVER RESPONSE"},
    {12153, u"INVALID HEADER"},
    {12154, u"INVALID QUERY REQUEST"},
    {12155, u"HTTP HEADER ALREADY EXISTS"},
    {12156, u"HTTP REDIRECT FAILED"},
    {12157, u"INTERNET SECURITY CHANNEL ERROR"},
    {12158, u"INTERNET UNABLE TO CACHE FILE"},
    {12159, u"TCPIP NOT INSTALLED"},
    {12160, u"HTTP NOT REDIRECTED"},
    {12161, u"COOKIE NEEDS CONFIRMATION"},
    {12162, u"COOKIE DECLINED"},
    {12163, u"DISCONNECTED"},
    {12164, u"INTERNET SERVER UNREACHABLE"},
    {12165, u"INTERNET PROXY SERVER UNREACHABLE"},
    {12166, u"BAD AUTO PROXY SCRIPT"},
    {12167, u"UNABLE TO DOWNLOAD SCRIPT"},
    {12168, u"HTTP REDIRECT NEEDS CONFIRMATION"},
    {12169, u"INTERNET SEC INVALID CERT"},
    {12170, u"INTERNET SEC CERT REVOKED"},
    {12171, u"INTERNET FAILED DUE TO SECURITY CHECK"},
};
static_assert(std::size(internetErrors) == 76);

constexpr DWORD firstInternetCode = 12000;
constexpr DWORD lastInternetCode = 12192;

} // namespace

bool InternetErrorText(DWORD code, String& text) {
  if (code < firstInternetCode || code > lastInternetCode) return false;
  auto row = std::lower_bound(std::begin(internetErrors), std::end(internetErrors), code,
                              [](const CodeText& entry, DWORD wanted) { return entry.code < wanted; });
  text = (row != std::end(internetErrors) && row->code == code) ? row->text : u"Unspecified Internet error";
  return true;
}

ErrorInfo* MakeInternetError(String prefix, DWORD code) {
  String text;
  if (!InternetErrorText(code, text)) text = GetSystemErrMsge();
  return MakeError(std::move(prefix), std::move(text));
}

} // namespace QOR
