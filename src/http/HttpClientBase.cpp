#include <qorxmlu/http/HttpClientBase.h>

namespace QOR {

namespace {
// Seconds to milliseconds, saturating: a limit too long for 32 bits of milliseconds is no limit,
// never a short one.
DWORD Milliseconds(DWORD seconds) {
  return seconds > 0xFFFFFFFFu / 1000 ? 0xFFFFFFFFu : seconds * 1000;
}
} // namespace

HttpClientBase::HttpClientBase(String agent, String server, bool secure, DWORD connectTimeoutSeconds,
                               DWORD requestTimeoutSeconds)
    : agent(std::move(agent)), server(std::move(server)), secure(secure), connectTimeout(Milliseconds(connectTimeoutSeconds)),
      requestTimeout(Milliseconds(requestTimeoutSeconds)) {
  formNames.SetCapacityIncrease(16);
  formValues.SetCapacityIncrease(16);
}

HttpClientBase::~HttpClientBase() = default;

void HttpClientBase::ClearFormFields() {
  formNames.Truncate(0);
  formValues.Truncate(0);
  uploadFile.SetEmpty();
  uploadParam.SetEmpty();
}

void HttpClientBase::ReportProgress(int) {}

void HttpClientBase::AddFormField(String name, String value) {
  formNames.Add(name);
  formValues.Add(value);
}

void HttpClientBase::SetUploadFile(String path, String param) {
  uploadFile = std::move(path);
  uploadParam = std::move(param);
}

} // namespace QOR
