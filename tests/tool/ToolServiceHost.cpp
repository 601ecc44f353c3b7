// Starts the sample service and runs a command that talks to it (the Windows tool tests under
// Wine), with its address in QORXML_TEST_SERVICE.
//   qorxml_test_service_host <program> [arguments...]
#include "SampleService.h"
#include "ShellCommand.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
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
  int status = QOR::test::RunArguments(argc, argv, 1);
  service.reset();
  std::error_code ignored;
  std::filesystem::remove_all(uploads, ignored);
  return status;
}
