// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a process with arguments, standard input and a home folder of its own.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kvr::test {

struct ProgramResult {
    int code; ///< exit status; 128 + signal number after a signal
    std::string out;
    std::string err;
};

/// A private folder that ends with the object, the value of KVR_HOME for the runs.
class ProgramHome {
  public:
    ProgramHome();
    ~ProgramHome();
    ProgramHome(const ProgramHome&) = delete;
    ProgramHome& operator=(const ProgramHome&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Makes a file in the folder and returns its path.
    [[nodiscard]] std::string file(const std::string& name, const std::string& contents) const;

    [[nodiscard]] ProgramResult run(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// As run, with a line for a shell in which $KVR is the program; for redirections.
    [[nodiscard]] ProgramResult shell(const std::string& line) const;
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    [[nodiscard]] std::string done(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// As done, with --json, and reads what it printed: the value, or an array of the lines' values.
    [[nodiscard]] nlohmann::json json(std::vector<std::string> arguments) const;

  private:
    std::filesystem::path path_;
};

/// A run that goes on beside the test; killed with the object when it has not been waited for.
class BackgroundProgram {
  public:
    BackgroundProgram(const ProgramHome& home, const std::vector<std::string>& arguments);
    ~BackgroundProgram();
    BackgroundProgram(const BackgroundProgram&) = delete;
    BackgroundProgram& operator=(const BackgroundProgram&) = delete;
    [[nodiscard]] pid_t pid() const { return pid_; }
    /// Waits for its end and gives the exit status as in ProgramResult.
    int wait();

  private:
    pid_t pid_;
};

/// Asks again and again until the condition holds; false when a generous deadline passed first.
[[nodiscard]] bool eventually(const std::function<bool()>& condition);

} // namespace kvr::test
