// SPDX-License-Identifier: MIT
// What every command of kvr shares: the global options, the errors of wrong usage, and the functions that add the
// commands to the program. A command reports failure by an exception; main.cpp turns it into text and an exit code.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "kavutil/error.h"

namespace CLI {
class App;
class Validator;
} // namespace CLI

namespace kvr {

/// Exit codes of the program.
enum ExitCode : int {
    kExitDone = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitTooFew = 3,        ///< get: fewer messages than asked for
    kExitCommandFailed = 4, ///< get --exec
    kExitCannotStart = 6,
};

/// A failure that scripts tell from others by an exit code of its own.
class ExitError : public Error {
  public:
    ExitError(ExitCode exit, Errc code, const std::string& text) : Error(code, text), exit_(exit) {}
    [[nodiscard]] ExitCode exit_code() const { return exit_; }

  private:
    ExitCode exit_;
};

/// A command line that cannot be right, whatever the state of the system. Texts read "<what is wrong>: <what to do>".
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Options that stand before or after any command. Filled by the parser before a command runs.
struct GlobalOptions {
    std::filesystem::path home; ///< folder of the queue managers; empty: $HOME/.kvr
    std::string qmgr;           ///< queue manager; empty: the only one there is
    bool json = false;          ///< machine-readable output
    int argc = 0;               ///< the program's own arguments, for the worker
    char** argv = nullptr;
};

/// Adds examples, and a pointer to the global options, to the end of a command's help.
void set_examples(CLI::App& command, const std::string& examples);

/// For options that take seconds: refuses what is no number between these two.
CLI::Validator seconds_between(double least, double greatest);

void add_create_command(CLI::App& app, GlobalOptions& global);
void add_define_command(CLI::App& app, GlobalOptions& global);
void add_set_command(CLI::App& app, GlobalOptions& global);
void add_show_command(CLI::App& app, GlobalOptions& global);
void add_delete_command(CLI::App& app, GlobalOptions& global);
void add_put_command(CLI::App& app, GlobalOptions& global);
void add_get_command(CLI::App& app, GlobalOptions& global);
void add_browse_command(CLI::App& app, GlobalOptions& global);
void add_release_command(CLI::App& app, GlobalOptions& global);
void add_move_command(CLI::App& app, GlobalOptions& global);
void add_replay_command(CLI::App& app, GlobalOptions& global);
void add_run_command(CLI::App& app, GlobalOptions& global);
void add_stop_command(CLI::App& app, GlobalOptions& global);
void add_status_command(CLI::App& app, GlobalOptions& global);
void add_listen_command(CLI::App& app, GlobalOptions& global);
void add_dissect_command(CLI::App& app, GlobalOptions& global);
void add_completion_command(CLI::App& app, GlobalOptions& global);

} // namespace kvr
