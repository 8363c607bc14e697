// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a command line, standard input and a home folder of its own, in which it
// runs.
#pragma once

#include <fcntl.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "host/children.h"
#include "support/folder.h"

namespace kvr::test {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

struct ProgramResult {
    int code; ///< as Child::result
    std::string out;
    std::string err;
};

/// A case with a private folder that ends with it, the value of KVR_HOME for the runs.
class ProgramTest : public ::testing::Test, protected TemporaryFolder {
  protected:
    /// Makes a file in the folder and returns its path.
    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(path() / name, std::ios::binary) << text;
        return path() / name;
    }
    [[nodiscard]] std::string text(const std::string& name) const { return contents(path() / name); }
    /// @param line  for a shell that has the program as $KVR
    [[nodiscard]] ProgramResult shell(const std::string& line, const std::string& input = "") const {
        file("in", input);
        const int code = start({"/bin/sh", "-c", line}, ".run", [] {}).result();
        return {code, text(".run.out"), text(".run.err")};
    }
    /// @param line  for a shell, after "kvr"
    [[nodiscard]] ProgramResult run(const std::string& line, const std::string& input = "") const {
        return shell("exec $KVR " + line, input);
    }
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    std::string done(const std::string& line, const std::string& input = "") const {
        const ProgramResult result = run(line, input);
        EXPECT_EQ(std::pair(result.code, result.err), std::pair(0, std::string())) << line;
        return result.out;
    }
    /// As done, with --json, and reads what it printed: an array of the lines' values, or the value in many lines.
    [[nodiscard]] json shown(const std::string& line) const {
        std::string text = done(line + " --json");
        if (text.starts_with("{\"")) {
            std::ranges::replace(text, '\n', ',');
            text = "[" + text.substr(0, text.size() - 1) + "]";
        }
        return json::parse(text);
    }
    /// A run that goes on beside the test, its standard error in background.err; `prepare` runs in the child first, and
    /// no shell comes between.
    [[nodiscard]] Child in_background(
        const std::string& line, const std::function<void()>& prepare = [] {}) const {
        std::istringstream words(KVR_PROGRAM + (" " + line));
        file("in", "");
        return start({std::istream_iterator<std::string>(words), {}}, "background", prepare);
    }

  private:
    /// Standard output and error go to files of this name.
    [[nodiscard]] Child start(std::vector<std::string> words, const std::string& name,
                              const std::function<void()>& prepare) const {
        return Child::fork_off([&] {
            std::vector<char*> argv;
            std::ranges::transform(words, std::back_inserter(argv), [](auto& word) { return word.data(); });
            argv.push_back(nullptr);
            ::setenv("KVR_HOME", path().c_str(), 1);
            ::setenv("KVR", KVR_PROGRAM, 1);
            ::unsetenv("KVR_QMGR");
            std::filesystem::current_path(path());
            ::dup2(::open("in", O_RDONLY), STDIN_FILENO);
            ::dup2(::creat((name + ".out").c_str(), 0600), STDOUT_FILENO);
            ::dup2(::creat((name + ".err").c_str(), 0600), STDERR_FILENO);
            prepare();
            return ::execv(argv[0], argv.data());
        });
    }
};

} // namespace kvr::test
