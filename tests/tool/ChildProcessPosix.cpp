#include "ToolRun.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace QOR::test {

ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& extraEnvironment) {
  static int runs = 0;
  auto stem = std::filesystem::temp_directory_path() /
              ("qorxml-child-" + std::to_string(getpid()) + "-" + std::to_string(++runs));
  std::string outPath = stem.string() + ".out", errPath = stem.string() + ".err";

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

  std::vector<std::string> args{QORXML_EXE};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> env;
  for (char** entry = environ; *entry; ++entry) {
    std::string text = *entry;
    if (!extraEnvironment.count(text.substr(0, text.find('=')))) env.push_back(text);
  }
  for (const auto& [name, value] : extraEnvironment) env.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);

  ChildRun run;
  pid_t pid = 0;
  bool started = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0;
  posix_spawn_file_actions_destroy(&actions);
  if (started) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(childTimeoutSeconds);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  }
  run.out = ReadAndRemove(outPath);
  run.err = ReadAndRemove(errPath);
  return run;
}

} // namespace QOR::test
