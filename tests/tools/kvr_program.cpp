// SPDX-License-Identifier: MIT
#include "kvr_program.h"

#include <iomanip>

#include <fcntl.h>

namespace kvr::test {
namespace {

std::vector<std::string> program_and(const std::string& line) {
    std::vector<std::string> words{KVR_PROGRAM};
    std::istringstream stream(line);
    for (std::string word; stream >> std::quoted(word, '\'');) {
        words.push_back(word);
    }
    return words;
}

} // namespace

std::string ProgramHome::file(const std::string& name, const std::string& text) const {
    std::ofstream(path() / name, std::ios::binary) << text;
    return path() / name;
}

/// Standard input, output and error come from and go to files of this name with ".in", ".out" and ".err".
Child ProgramHome::start(const std::string& base, std::vector<std::string> words,
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
        ::dup2(::open((base + ".in").c_str(), O_RDONLY | O_CREAT, 0600), STDIN_FILENO);
        ::dup2(::creat((base + ".out").c_str(), 0600), STDOUT_FILENO);
        ::dup2(::creat((base + ".err").c_str(), 0600), STDERR_FILENO);
        prepare();
        return ::execv(argv[0], argv.data());
    });
}

ProgramResult ProgramHome::wait_for(std::vector<std::string> words, const std::string& input) const {
    const std::string base = path() / ".run";
    file(".run.in", input);
    const int code = start(base, std::move(words), [] {}).result();
    return {code, contents(base + ".out"), contents(base + ".err")};
}

ProgramResult ProgramHome::run(const std::string& line, const std::string& input) const {
    return wait_for(program_and(line), input);
}

ProgramResult ProgramHome::shell(const std::string& line) const {
    return wait_for({"/bin/sh", "-c", line}, "");
}

std::string ProgramHome::done(const std::string& line, const std::string& input) const {
    const ProgramResult result = run(line, input);
    EXPECT_EQ(result.code, 0) << line << ": " << result.err;
    EXPECT_EQ(result.err, "") << line;
    return result.out;
}

nlohmann::json ProgramHome::json(const std::string& line) const {
    const std::string text = done(line + " --json");
    nlohmann::json whole = nlohmann::json::parse(text, nullptr, false);
    if (!whole.is_discarded() && (!whole.is_object() || text.find('\n') != text.size() - 1)) {
        return whole;
    }
    nlohmann::json lines = nlohmann::json::array();
    std::istringstream stream(text);
    for (std::string value; std::getline(stream, value);) {
        lines.push_back(nlohmann::json::parse(value));
    }
    return lines;
}

Child ProgramHome::in_background(const std::string& line, const std::function<void()>& prepare) const {
    return start(path() / ".background", program_and(line), prepare);
}

} // namespace kvr::test
