// SPDX-License-Identifier: MIT
// The command line as a whole: the global options and all commands with their help. The program parses with it;
// completion and the manual are made from its description.
#pragma once

#include "commands.h"

namespace kvr {

/// Adds the global options, the commands and all texts of the help to a new parser. What they fill is `global`.
void add_command_line(CLI::App& app, GlobalOptions& global);

/// Runs the one command that the arguments name. A failure is one line on standard error.
/// @return the program's exit code
int run_command_line(int argc, char** argv);

} // namespace kvr
