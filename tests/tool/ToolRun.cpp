#include "ToolRun.h"

#include "SampleService.h"

#include <cstdlib>

namespace QOR::test {

ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment) {
  return RunChild(QORXML_EXE, arguments, environment);
}

namespace {

struct ServiceOfTheRun {
  std::string address;
  std::filesystem::path uploads;
  std::unique_ptr<qorxml::SampleService> local;

  ServiceOfTheRun() {
    if (const char* given = std::getenv("QORXML_TEST_SERVICE")) {
      address = given;
      return;
    }
    uploads = std::filesystem::temp_directory_path() / ("qorxml-test-uploads-" + std::to_string(std::rand()));
    qorxml::ServiceSettings settings;
    settings.port = 0;
    settings.uploadFolder = uploads;
    std::string error;
    local = qorxml::StartSampleService(settings, error);
    if (local) address = "127.0.0.1:" + std::to_string(local->Port());
  }
  ~ServiceOfTheRun() {
    local.reset();
    std::error_code ignored;
    if (!uploads.empty()) std::filesystem::remove_all(uploads, ignored);
  }
};

ServiceOfTheRun& TheService() {
  static ServiceOfTheRun service;
  return service;
}

} // namespace

const std::string& ToolService() { return TheService().address; }

const std::filesystem::path& ToolServiceUploads() { return TheService().uploads; }

} // namespace QOR::test
