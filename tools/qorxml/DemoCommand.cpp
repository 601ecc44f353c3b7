// qorxml demo: the library's whole story against a sample service of its own.
#include "Commands.h"
#include "SampleService.h"

#include <iostream>

namespace qorxml {

void AddDemoCommand(CLI::App& app, int& exitStatus) {
  CLI::App* command = app.add_subcommand(
      "demo", "Run the whole story (documents, queued queries, a 50 MB upload, tracing) against a local service");
  command->callback([&exitStatus] { exitStatus = RunDemoStory(std::cout); });
}

} // namespace qorxml
