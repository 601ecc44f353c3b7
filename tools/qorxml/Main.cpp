// qorxml: try the library from the command line: check and format documents, post forms, run
// queries, and serve the sample web service they talk to.
#include "Commands.h"
#include "ToolSupport.h"

int main(int argc, char** argv) {
  CLI::App app{"qorxml: documents, requests and queries of the qorxmlu library", "qorxml"};
  app.require_subcommand(1);
  // URLs start with '/', which Windows builds of CLI11 would otherwise take for an option.
  app.allow_windows_style_options(false);
  int exitStatus = 0;
  qorxml::AddCheckCommand(app, exitStatus);
  qorxml::AddFmtCommand(app, exitStatus);
  qorxml::AddPostCommand(app, exitStatus);
  qorxml::AddQueryCommand(app, exitStatus);
  qorxml::AddServeCommand(app, exitStatus);
  qorxml::AddDemoCommand(app, exitStatus);
  // Lines end in LF on every platform; documents bring their own CR LF.
  qorxml::SetBinaryStdout();
  CLI11_PARSE(app, argc, argv);
  return exitStatus;
}
