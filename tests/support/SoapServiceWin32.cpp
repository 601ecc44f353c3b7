// The Windows side: the service runs in the native qorxmlu_soap_service_host.
#include "SoapService.h"

#include <windows.h>

namespace QOR::test {

std::unique_ptr<SoapServiceRun> StartSoapService() { return nullptr; }

bool RunningOnWine() {
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

} // namespace QOR::test
