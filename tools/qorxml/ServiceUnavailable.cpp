// Builds without a server library: serve and demo say so.
#include "SampleService.h"

namespace qorxml {

std::unique_ptr<SampleService> StartSampleService(const ServiceSettings&, std::string& error) {
  error = "serve is not available in this build: it has no HTTP server library";
  return nullptr;
}

int RunDemoStory(std::ostream& out) {
  out << "qorxml demo: not available in this build: the demo runs the sample service, and this build has no "
         "HTTP server library"
      << std::endl;
  return 1;
}

} // namespace qorxml
