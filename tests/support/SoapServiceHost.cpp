// Starts the fake web service and runs a command that talks to it (a Windows test program under
// Wine), with its address in QORXMLU_SOAP_SERVICE.
//   qorxmlu_soap_service_host <program> [arguments...]
#include "SoapService.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qorxmlu_soap_service_host <program> [arguments...]\n");
    return 2;
  }
  auto service = QOR::test::StartSoapService();
  setenv("QORXMLU_SOAP_SERVICE", service->Addresses().Encode().c_str(), 1);
  std::string command;
  for (int i = 1; i < argc; ++i) {
    std::string quoted = "'";
    for (char c : std::string(argv[i])) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += quoted + "' ";
  }
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
