// qorxml: try the library from the command line: check and format documents, post forms, run
// queries, and serve the sample web service they talk to.
#include "Commands.h"

int main(int argc, char** argv) {
  CLI::App app{"qorxml: documents, requests and queries of the qorxmlu library", "qorxml"};
  app.require_subcommand(1);
  int exitStatus = 0;
  qorxml::AddCheckCommand(app, exitStatus);
  qorxml::AddFmtCommand(app, exitStatus);
  qorxml::AddPostCommand(app, exitStatus);
  qorxml::AddQueryCommand(app, exitStatus);
  qorxml::AddServeCommand(app, exitStatus);
  qorxml::AddDemoCommand(app, exitStatus);
  CLI11_PARSE(app, argc, argv);
  return exitStatus;
}
