// The subcommands of qorxml. Each adds itself to the application; when it is the one chosen, its
// callback runs it and stores the exit status.
#pragma once

#include <CLI/CLI.hpp>

namespace qorxml {

void AddCheckCommand(CLI::App& app, int& exitStatus);
void AddFmtCommand(CLI::App& app, int& exitStatus);
void AddPostCommand(CLI::App& app, int& exitStatus);
void AddQueryCommand(CLI::App& app, int& exitStatus);
void AddServeCommand(CLI::App& app, int& exitStatus);
void AddDemoCommand(CLI::App& app, int& exitStatus);

} // namespace qorxml
