// SPDX-License-Identifier: MIT
#include "kvr_program.h"

#include <fcntl.h>

namespace kvr::test {

std::string ProgramHome::file(const std::string& name, const std::string& text) const {
    const std::filesystem::path file = path() / ("." + name);
    std::ofstream(file, std::ios::binary) << text;
    return file.native();
}

/// Standard input, output and error come from and go to files of this name with ".in", ".out" and ".err".
Child ProgramHome::start(const std::string& base, Words command, const std::function<void()>& prepare) const {
    return Child::fork_off([&] {
        std::vector<char*> argv;
        for (std::string& word : command) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        ::setenv("KVR_HOME", path().c_str(), 1);
        ::setenv("KVR", KVR_PROGRAM, 1);
        ::unsetenv("KVR_QMGR");
        ::dup2(::open((base + ".in").c_str(), O_RDONLY), STDIN_FILENO);
        ::dup2(::creat((base + ".out").c_str(), 0600), STDOUT_FILENO);
        ::dup2(::creat((base + ".err").c_str(), 0600), STDERR_FILENO);
        prepare();
        return ::execv(argv[0], argv.data());
    });
}

ProgramResult ProgramHome::run_and_wait(const Words& command, const std::string& input) const {
    const std::string base = path() / ".run";
    std::ofstream(base + ".in", std::ios::binary) << input;
    const int code = start(base, command, [] {}).result();
    return {code, contents(base + ".out"), contents(base + ".err")};
}

ProgramResult ProgramHome::run(const Words& arguments, const std::string& input) const {
    return run_and_wait(Words{KVR_PROGRAM} + arguments, input);
}

ProgramResult ProgramHome::shell(const std::string& line) const {
    return run_and_wait({"/bin/sh", "-c", line}, "");
}

std::string ProgramHome::done(const Words& arguments, const std::string& input) const {
    const ProgramResult result = run(arguments, input);
    EXPECT_EQ(result.code, 0) << arguments.front() << ": " << result.err;
    EXPECT_EQ(result.err, "") << arguments.front();
    return result.out;
}

nlohmann::json ProgramHome::json(const Words& arguments) const {
    const std::string text = done(arguments + Words{"--json"});
    nlohmann::json whole = nlohmann::json::parse(text, nullptr, false);
    if (!whole.is_discarded() && (!whole.is_object() || text.find('\n') != text.size() - 1)) {
        return whole;
    }
    nlohmann::json lines = nlohmann::json::array();
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

Child ProgramHome::in_background(const Words& arguments, const std::function<void()>& prepare) const {
    const std::string base = path() / ".background";
    std::ofstream(base + ".in") << "";
    return start(base, Words{KVR_PROGRAM} + arguments, prepare);
}

} // namespace kvr::test
