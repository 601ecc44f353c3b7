// Runs a program with its arguments through the shell, each argument quoted as it came; for the
// hosts that start a service and then the program that talks to it.
#pragma once
#include <cstdlib>
#include <string>
#include <sys/wait.h>

namespace QOR::test {

// The exit status of argv[first...] run as one command, or 1 if it did not exit normally.
inline int RunArguments(int argc, char** argv, int first) {
  std::string command;
  for (int i = first; i < argc; ++i) {
    std::string quoted = "'";
    for (char c : std::string(argv[i])) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += quoted + "' ";
  }
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace QOR::test
