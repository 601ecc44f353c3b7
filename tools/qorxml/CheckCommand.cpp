// qorxml check: reads each file as a document and runs the data version check on it.
#include "Commands.h"
#include "ToolSupport.h"

#include <qorxmlu/xml/XML.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace qorxml {

namespace {

struct CheckOptions {
  std::vector<std::string> files;
  int appVersion = 1;
  std::string software = "qorxml";
};

// "ok", or what the reader or the version check said.
std::string CheckFile(const CheckOptions& options, const std::string& file) {
  QOR::XML document;
  std::string error = TakeErrorText(document.ReadFile(Text(file)));
  if (!error.empty()) return error;
  int version = 0;
  error = TakeErrorText(document.CheckVersion(Text(options.software), QOR::String(), version));
  return error.empty() ? "ok" : error;
}

int RunCheck(const CheckOptions& options) {
  QOR::XML::SetAppVersion(options.appVersion);
  int status = 0;
  for (const std::string& file : options.files) {
    std::string outcome = CheckFile(options, file);
    if (outcome != "ok") status = 1;
    std::cout << file << ": " << outcome << std::endl;
  }
  return status;
}

} // namespace

void AddCheckCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand("check", "Read each file as a document and check its data version");
  command->add_option("FILE", options->files, "Document files")->required();
  command->add_option("--app-version", options->appVersion,
                      "Highest data version the application handles (default 1)");
  command->add_option("--software", options->software, "Software named in the version message");
  command->callback([options, &exitStatus] { exitStatus = RunCheck(*options); });
}

} // namespace qorxml
