// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a process with arguments, standard input and a home folder of its own.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/children.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

struct ProgramResult {
    int code; ///< exit status; 128 + signal number after a signal
    std::string out;
    std::string err;
};

/// A private folder that ends with the object, the value of KVR_HOME for the runs.
class ProgramHome : public TemporaryFolder {
  public:
    /// Makes a file in the folder and returns its path.
    [[nodiscard]] std::string file(const std::string& name, const std::string& contents) const;

    [[nodiscard]] ProgramResult run(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// As run, with a line for a shell in which $KVR is the program; for redirections.
    [[nodiscard]] ProgramResult shell(const std::string& line) const;
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    [[nodiscard]] std::string done(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// As done, with --json, and reads what it printed: the value, or an array of the lines' values.
    [[nodiscard]] nlohmann::json json(std::vector<std::string> arguments) const;
};

/// A run that goes on beside the test, its output in .background.out and .err of the home.
[[nodiscard]] Child in_background(const ProgramHome& home, const std::vector<std::string>& arguments);

} // namespace kvr::test
