#include "ToolRun.h"

#include "SampleService.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace QOR::test {

namespace {

// The service of the run, stopped when the tests end, before the statics that its threads use
// are destroyed.
class ServiceOfTheRun : public testing::Environment {
public:
  void SetUp() override {
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
  void TearDown() override {
    local.reset();
    folder.reset();
  }

  std::string address;
  std::filesystem::path uploads;

private:
  std::unique_ptr<TempDir> folder;
  std::unique_ptr<qorxml::SampleService> local;
};

ServiceOfTheRun* const theService =
    static_cast<ServiceOfTheRun*>(testing::AddGlobalTestEnvironment(new ServiceOfTheRun));

} // namespace

const std::string& ToolService() { return theService->address; }

const std::filesystem::path& ToolServiceUploads() { return theService->uploads; }

} // namespace QOR::test
