// A program that only talks to the fake web service: the service runs in qorxmlu_soap_service_host.
#include "SoapService.h"

namespace QOR::test {

std::unique_ptr<SoapServiceRun> StartSoapService() { return nullptr; }

bool RunningOnWine() { return false; }

} // namespace QOR::test
