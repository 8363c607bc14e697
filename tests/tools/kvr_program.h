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

struct ProgramResult {
    int code; ///< as Child::result
    std::string out;
    std::string err;
};

/// A private folder that ends with the object, the value of KVR_HOME for the runs.
class ProgramHome : public TemporaryFolder {
  public:
    /// Makes a file in the folder and returns its path.
    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(path() / name, std::ios::binary) << text;
        return path() / name;
    }
    /// @param line  for a shell that has the program as $KVR
    [[nodiscard]] ProgramResult shell(const std::string& line, const std::string& input = "") const {
        file("in", input);
        const int code = start({"/bin/sh", "-c", line}, ".run", [] {}).result();
        return {code, contents(path() / ".run.out"), contents(path() / ".run.err")};
    }
    /// @param line  for a shell, after "kvr"
    [[nodiscard]] ProgramResult run(const std::string& line, const std::string& input = "") const {
        return shell("exec $KVR " + line, input);
    }
    /// Runs a command that must succeed without a word on standard error; gives its standard output.
    std::string done(const std::string& line, const std::string& input = "") const {
        const ProgramResult result = run(line, input);
        EXPECT_EQ(result.code, 0) << line << ": " << result.err;
        EXPECT_EQ(result.err, "") << line;
        return result.out;
    }
    /// As done, with --json, and reads what it printed: an array of the lines' values, or the value in many lines.
    [[nodiscard]] nlohmann::json json(const std::string& line) const {
        const std::string text = done(line + " --json");
        if (!text.starts_with("{\"")) {
            return nlohmann::json::parse(text);
        }
        nlohmann::json lines = nlohmann::json::array();
        std::istringstream stream(text);
        for (std::string value; std::getline(stream, value);) {
            lines.push_back(nlohmann::json::parse(value));
        }
        return lines;
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
            for (std::string& word : words) {
                argv.push_back(word.data());
            }
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
