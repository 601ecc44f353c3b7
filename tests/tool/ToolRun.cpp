#include "ToolRun.h"

#include "SampleService.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace QOR::test {

namespace {

struct ServiceOfTheRun {
  std::string address;
  std::filesystem::path uploads;
  std::unique_ptr<TempDir> folder;
  std::unique_ptr<qorxml::SampleService> local;

  ServiceOfTheRun() {
    if (const char* given = std::getenv("QORXML_TEST_SERVICE")) {
      address = given;
      return;
    }
    folder = std::make_unique<TempDir>();
    uploads = folder->Path("uploads");
    qorxml::ServiceSettings settings;
    settings.port = 0;
    settings.uploadFolder = uploads;
    std::string error;
    local = qorxml::StartSampleService(settings, error);
    if (local) address = "127.0.0.1:" + std::to_string(local->Port());
  }
  ~ServiceOfTheRun() { Stop(); }
  void Stop() {
    local.reset();
    folder.reset();
  }
};

ServiceOfTheRun& TheService() {
  static ServiceOfTheRun service;
  return service;
}

// The service stops when the tests end, before the statics that its threads use are destroyed.
class ServiceStop : public testing::Environment {
public:
  void TearDown() override { TheService().Stop(); }
};
testing::Environment* const serviceStop = testing::AddGlobalTestEnvironment(new ServiceStop);

} // namespace

const std::string& ToolService() { return TheService().address; }

const std::filesystem::path& ToolServiceUploads() { return TheService().uploads; }

} // namespace QOR::test
