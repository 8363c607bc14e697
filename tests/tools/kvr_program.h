// SPDX-License-Identifier: MIT
// Runs the program kvr as an operator would: a shell's command line, standard input and a home folder of its own.
#pragma once

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

/// A case with a private folder that ends with it: the value of KVR_HOME, and where all commands run. In it is the
/// queue manager EAST with the queue Q. A shell has the program as $KVR.
class ProgramTest : public ::testing::Test, protected TemporaryFolder {
  protected:
    ProgramTest() {
        done("create EAST");
        done("define queue Q");
    }
    /// Makes a file in the folder and returns its path.
    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(path() / name, std::ios::binary) << text;
        return path() / name;
    }
    [[nodiscard]] std::string text(const std::string& name) const { return contents(path() / name); }
    /// A shell that goes on beside the test; its standard output and error go to files of this name.
    [[nodiscard]] Child start(const std::string& line, const std::string& name = "background") const {
        ::setenv("KVR_HOME", path().c_str(), 1);
        ::setenv("KVR", KVR_PROGRAM, 1);
        ::unsetenv("KVR_QMGR");
        const std::string all = "cd " + path().native() + " && exec <in >" + name + ".out 2>" + name + ".err; " + line;
        return Child::fork_off([&all] { return ::execl("/bin/sh", "sh", "-c", all.c_str(), nullptr); });
    }
    /// @param line  after "kvr"
    [[nodiscard]] ProgramResult run(const std::string& line, const std::string& input = "") const {
        file("in", input);
        const int code = start("exec $KVR " + line, ".run").result();
        return {code, text(".run.out"), text(".run.err")};
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
};

} // namespace kvr::test
