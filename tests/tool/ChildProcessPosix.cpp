#include "ToolRun.h"

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace QOR::test {

namespace {

// A run that takes longer than this is killed.
constexpr int childTimeoutSeconds = 120;

// One word for the shell, taken as it is.
std::string Quoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

} // namespace

ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& extraEnvironment) {
  static int runs = 0;
  auto stem = std::filesystem::temp_directory_path() /
              ("qorxml-child-" + std::to_string(getpid()) + "-" + std::to_string(++runs));
  std::string outPath = stem.string() + ".out", errPath = stem.string() + ".err";

  // timeout kills a run that takes too long (status 137); env adds the extra variables.
  std::string command = "timeout -s KILL " + std::to_string(childTimeoutSeconds) + " env";
  for (const auto& [name, value] : extraEnvironment) command += " " + Quoted(name + "=" + value);
  command += " " + Quoted(QORXML_EXE);
  for (const std::string& argument : arguments) command += " " + Quoted(argument);
  command += " </dev/null >" + Quoted(outPath) + " 2>" + Quoted(errPath);

  ChildRun run;
  int status = std::system(command.c_str());
  if (status != -1 && WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  run.out = ReadAndRemove(outPath);
  run.err = ReadAndRemove(errPath);
  return run;
}

} // namespace QOR::test
