// qorxml fmt: reads a document and writes it back in the library's own form, but only a tree that
// reads back the same: a file is replaced only after its new text has been read back.
#include "Commands.h"
#include "ToolSupport.h"

#include <qorxmlu/xml/XML.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

namespace qorxml {

namespace {

struct FmtOptions {
  std::string file;
  std::string output;
};

// Writes the document to a file beside target, reads that back, and only if it comes back the
// same puts it in target's place; target stays as it was on any failure.
std::string WriteChecked(const QOR::XML& document, const std::filesystem::path& target) {
  std::filesystem::path temporary = target;
  temporary += ".qorxml-fmt";
  std::string error = TakeErrorText(document.Write(QOR::String(temporary.u16string())));
  if (error.empty()) {
    QOR::XML back;
    error = TakeErrorText(back.ReadFile(QOR::String(temporary.u16string())));
    if (!error.empty()) error = "the written file does not read back: " + error;
    else if (!(back.GetText() == document.GetText())) error = "the written file does not read back the same";
  }
  std::error_code failure;
  if (error.empty()) std::filesystem::rename(temporary, target, failure);
  if (failure) error = failure.message();
  if (!error.empty()) std::filesystem::remove(temporary, failure);
  return error;
}

int RunFmt(const FmtOptions& options) {
  QOR::XML document;
  std::string error = TakeErrorText(document.ReadFile(Text(options.file)));
  QOR::String reason;
  if (error.empty()) {
    if (const QOR::XMLTag* tag = document.FindUnwritableTag(&reason)) {
      error = "tag \"" + Utf8(tag->GetName()) + "\" would not read back: " + Utf8(reason) + "; nothing written";
    }
  }
  if (error.empty() && !options.output.empty()) {
    error = WriteChecked(document, std::filesystem::path(Text(options.output).Std()));
  }
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
