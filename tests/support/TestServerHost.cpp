// Starts the servers of TestServers.h and runs a command that talks to them (a Windows test
// program under Wine), with their addresses in QORXMLU_TEST_SERVERS.
//   qorxmlu_test_host <program> [arguments...]
#include "ShellCommand.h"
#include "TestServers.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qorxmlu_test_host <program> [arguments...]\n");
    return 2;
  }
  auto servers = QOR::test::StartServers();
  setenv("QORXMLU_TEST_SERVERS", servers->Addresses().Encode().c_str(), 1);
  return QOR::test::RunArguments(argc, argv, 1);
}
