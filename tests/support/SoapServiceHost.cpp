// Starts the fake web service and runs a command that talks to it (a Windows test program under
// Wine), with its address in QORXMLU_SOAP_SERVICE.
//   qorxmlu_soap_service_host <program> [arguments...]
#include "ShellCommand.h"
#include "SoapService.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qorxmlu_soap_service_host <program> [arguments...]\n");
    return 2;
  }
  auto service = QOR::test::StartSoapService();
  setenv("QORXMLU_SOAP_SERVICE", service->Addresses().Encode().c_str(), 1);
  return QOR::test::RunArguments(argc, argv, 1);
}
