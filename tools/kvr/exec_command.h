// SPDX-License-Identifier: MIT
// Runs a command of the operator's with a message on its standard input, and ends it on a stop.
#pragma once

#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "kavutil/unique_fd.h"

namespace kvr {

/// For one in a process, which holds back SIGINT and SIGTERM from then on: they mean a stop, unless they were ignored.
class ExecCommand {
  public:
    /// @param line  for /bin/sh -c
    explicit ExecCommand(std::string line);
    ExecCommand(const ExecCommand&) = delete;
    ExecCommand& operator=(const ExecCommand&) = delete;

    /// Runs the command to its end, in a process group of its own. A stop sends SIGTERM to that group, a second one or
    /// ten seconds more SIGKILL.
    /// @param input        its standard input, of which it reads what it likes
    /// @param environment  NAME=VALUE
    /// @return whether it ended with 0
    bool run(std::string_view input, const std::vector<std::string>& environment);
    /// How the last one ended: "ended with exit code 1".
    [[nodiscard]] std::string end_text() const;
    /// Whether a stop was asked for.
    [[nodiscard]] bool stopped() const;
    /// Can be read when a stop is asked for while no command runs.
    [[nodiscard]] int stop_fd() const { return stop_fd_.get(); }

  private:
    void wait(pid_t child);

    std::string line_;
    sigset_t stops_{}; ///< the signals that mean a stop
    sigset_t watched_{};
    sigset_t original_{};
    UniqueFd stop_fd_;
    bool stopped_ = false; ///< the signal was taken
    int status_ = 0;
};

} // namespace kvr
