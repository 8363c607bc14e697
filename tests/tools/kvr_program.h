// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a command line, standard input and a home folder of its own, in which it
// runs.
#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "host/children.h"
#include "support/folder.h"

namespace kvr::test {

struct ProgramResult {
    int code; ///< as Child::result
    std::string out;
    std::string err;
};

/// A private folder that ends with the object, the value of KVR_HOME for the runs. A command line is what follows
/// "kvr", words with spaces in single quotes.
class ProgramHome : public TemporaryFolder {
  public:
    /// Makes a file in the folder and returns its path.
    std::string file(const std::string& name, const std::string& contents) const;
    [[nodiscard]] ProgramResult run(const std::string& line, const std::string& input = "") const;
    /// A line for a shell in which $KVR is the program; for redirections.
    [[nodiscard]] ProgramResult shell(const std::string& line) const;
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    std::string done(const std::string& line, const std::string& input = "") const;
    /// As done, with --json, and reads what it printed: the value, or an array of the lines' values.
    [[nodiscard]] nlohmann::json json(const std::string& line) const;
    /// A run that goes on beside the test, its standard error in .background.err; `prepare` runs in the child first.
    [[nodiscard]] Child in_background(
        const std::string& line, const std::function<void()>& prepare = [] {}) const;

  private:
    [[nodiscard]] Child start(const std::string& base, std::vector<std::string> words,
                              const std::function<void()>& prepare) const;
    [[nodiscard]] ProgramResult wait_for(std::vector<std::string> words, const std::string& input) const;
};

} // namespace kvr::test
