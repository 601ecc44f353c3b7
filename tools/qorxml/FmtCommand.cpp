// qorxml fmt: reads a document and writes it back in the library's own form.
#include "Commands.h"
#include "ToolSupport.h"

#include <qorxmlu/xml/XML.h>

#include <iostream>
#include <memory>
#include <string>

namespace qorxml {

namespace {

struct FmtOptions {
  std::string file;
  std::string output;
};

int RunFmt(const FmtOptions& options) {
  QOR::XML document;
  std::string error = TakeErrorText(document.ReadFile(Text(options.file)));
  if (error.empty() && !options.output.empty()) error = TakeErrorText(document.Write(Text(options.output)));
  if (!error.empty()) {
    std::cerr << "qorxml fmt: " << options.file << ": " << error << std::endl;
    return 1;
  }
  if (options.output.empty()) {
    WriteStdout(Utf8(document.GetText()));
  }
  return 0;
}

} // namespace

void AddFmtCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<FmtOptions>();
  CLI::App* command = app.add_subcommand("fmt", "Read a document and write it in the library's own form");
  command->add_option("FILE", options->file, "Document file")->required();
  command->add_option("-o,--output", options->output, "Write to this file instead of stdout (may be FILE)");
  command->callback([options, &exitStatus] { exitStatus = RunFmt(*options); });
}

} // namespace qorxml
