// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a process with arguments, standard input and a home folder of its own.
#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "host/children.h"
#include "support/folder.h"

namespace kvr::test {

using Words = std::vector<std::string>;

inline Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

struct ProgramResult {
    int code; ///< as Child::result
    std::string out;
    std::string err;
};

/// A private folder that ends with the object, the value of KVR_HOME for the runs.
class ProgramHome : public TemporaryFolder {
  public:
    /// Makes a file in the folder and returns its path.
    [[nodiscard]] std::string file(const std::string& name, const std::string& contents) const;
    [[nodiscard]] ProgramResult run(const Words& arguments, const std::string& input = "") const;
    /// As run, with a line for a shell in which $KVR is the program; for redirections.
    [[nodiscard]] ProgramResult shell(const std::string& line) const;
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    std::string done(const Words& arguments, const std::string& input = "") const;
    /// As done, with --json, and reads what it printed: the value, or an array of the lines' values.
    [[nodiscard]] nlohmann::json json(const Words& arguments) const;
    /// A run that goes on beside the test, its standard error in .background.err; `prepare` runs in the child first.
    [[nodiscard]] Child in_background(
        const Words& arguments, const std::function<void()>& prepare = [] {}) const;

  private:
    [[nodiscard]] Child start(const std::string& base, Words command, const std::function<void()>& prepare) const;
    [[nodiscard]] ProgramResult run_and_wait(const Words& command, const std::string& input) const;
};

} // namespace kvr::test
