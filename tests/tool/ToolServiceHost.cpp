// Starts the sample service and runs a command that talks to it (the Windows tool tests under
// Wine), with its address in QORXML_TEST_SERVICE.
//   qorxml_test_service_host <program> [arguments...]
#include "SampleService.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qorxml_test_service_host <program> [arguments...]\n");
    return 2;
  }
  auto uploads = std::filesystem::temp_directory_path() / ("qorxml-host-uploads-" + std::to_string(getpid()));
  qorxml::ServiceSettings settings;
  settings.port = 0;
  settings.uploadFolder = uploads;
  std::string error;
  auto service = qorxml::StartSampleService(settings, error);
  if (!service) {
    std::fprintf(stderr, "qorxml_test_service_host: %s\n", error.c_str());
    return 1;
  }
  setenv("QORXML_TEST_SERVICE", ("127.0.0.1:" + std::to_string(service->Port())).c_str(), 1);
  std::string command;
  for (int i = 1; i < argc; ++i) {
    std::string quoted = "'";
    for (char c : std::string(argv[i])) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += quoted + "' ";
  }
  int status = std::system(command.c_str());
  service.reset();
  std::error_code ignored;
  std::filesystem::remove_all(uploads, ignored);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
