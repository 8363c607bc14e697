// SPDX-License-Identifier: MIT
#include "kvr_program.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

bool redirect(const fs::path& file, int flags, int to) {
    const int fd = ::open(file.c_str(), flags, 0600);
    return fd >= 0 && ::dup2(fd, to) == to;
}

/// Standard input, output and error come from and go to files of this name with ".in", ".out" and ".err".
Child start(const fs::path& home, const std::string& base, std::vector<std::string> arguments) {
    return Child::fork_off([&] {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        (void)::setenv("KVR_HOME", home.c_str(), 1);
        (void)::setenv("KVR", KVR_PROGRAM, 1);
        (void)::unsetenv("KVR_QMGR");
        const int out = O_WRONLY | O_CREAT | O_TRUNC;
        if (redirect(base + ".in", O_RDONLY, STDIN_FILENO) && redirect(base + ".out", out, STDOUT_FILENO) &&
            redirect(base + ".err", out, STDERR_FILENO)) {
            (void)::execv(argv[0], argv.data());
        }
        return 127;
    });
}

ProgramResult run_and_wait(const fs::path& home, const std::vector<std::string>& arguments, const std::string& input) {
    const std::string base = home / ".run";
    std::ofstream(base + ".in", std::ios::binary) << input;
    const int code = start(home, base, arguments).result();
    return {code, contents(base + ".out"), contents(base + ".err")};
}

std::vector<std::string> with_program(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{KVR_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

} // namespace

std::string ProgramHome::file(const std::string& name, const std::string& text) const {
    const fs::path file = path() / ("." + name);
    std::ofstream(file, std::ios::binary) << text;
    return file.native();
}

ProgramResult ProgramHome::run(const std::vector<std::string>& arguments, const std::string& input) const {
    return run_and_wait(path(), with_program(arguments), input);
}

ProgramResult ProgramHome::shell(const std::string& line) const {
    return run_and_wait(path(), {"/bin/sh", "-c", line}, "");
}

std::string ProgramHome::done(const std::vector<std::string>& arguments, const std::string& input) const {
    const ProgramResult result = run(arguments, input);
    EXPECT_EQ(result.code, 0) << arguments.front() << ": " << result.err;
    EXPECT_EQ(result.err, "") << arguments.front();
    return result.out;
}

nlohmann::json ProgramHome::json(std::vector<std::string> arguments) const {
    arguments.emplace_back("--json");
    const std::string text = done(arguments);
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

Child in_background(const ProgramHome& home, const std::vector<std::string>& arguments) {
    const std::string base = home.path() / ".background";
    std::ofstream(base + ".in") << "";
    return start(home.path(), base, with_program(arguments));
}

} // namespace kvr::test
