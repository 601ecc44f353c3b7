// Starts the servers of the end-to-end tests and runs a command that talks to them (the
// Windows test program under Wine), with their addresses in QORXMLU_NET_SERVERS.
//   http_net_host <program> [arguments...]
#include "NetServers.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: http_net_host <program> [arguments...]\n");
    return 2;
  }
  auto servers = QOR::test::StartNetServers();
  setenv("QORXMLU_NET_SERVERS", servers->Servers().Encode().c_str(), 1);
  std::string command;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    std::string quoted = "'";
    for (char c : argument) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += quoted + "' ";
  }
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
