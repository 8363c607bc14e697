// SPDX-License-Identifier: MIT
#include "kvr_program.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr int kSignalBase = 128;
constexpr int kCannotRun = 127;
constexpr unsigned kDeadlineSeconds = 60; ///< a program that hangs is ended by an alarm of its own

struct Redirections {
    fs::path in;
    fs::path out;
    fs::path err;
};

std::string contents(const fs::path& file) {
    std::ostringstream text;
    if (fs::file_size(file) > 0) {
        text << std::ifstream(file, std::ios::binary).rdbuf();
    }
    return text.str();
}

bool redirect(const fs::path& file, int flags, int to) {
    const int fd = ::open(file.c_str(), flags, 0600);
    return fd >= 0 && ::dup2(fd, to) == to;
}

pid_t start(const fs::path& home, const std::vector<std::string>& arguments, const Redirections& redirections) {
    std::vector<std::string> copy = arguments;
    std::vector<char*> argv;
    argv.reserve(copy.size() + 1);
    for (std::string& argument : copy) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) {
        return pid;
    }
    (void)::setenv("KVR_HOME", home.c_str(), 1);
    (void)::setenv("KVR", KVR_PROGRAM, 1);
    (void)::unsetenv("KVR_QMGR");
    (void)::alarm(kDeadlineSeconds);
    if (redirect(redirections.in, O_RDONLY, STDIN_FILENO) &&
        redirect(redirections.out, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO) &&
        redirect(redirections.err, O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO)) {
        (void)::execv(argv[0], argv.data());
    }
    ::_exit(kCannotRun);
}

int exit_code(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status);
}

ProgramResult run_and_wait(const fs::path& home, const std::vector<std::string>& arguments, const std::string& input) {
    static int count = 0;
    const fs::path base = home / (".run" + std::to_string(++count));
    const Redirections redirections{base.native() + ".in", base.native() + ".out", base.native() + ".err"};
    std::ofstream(redirections.in, std::ios::binary) << input;
    const int code = exit_code(start(home, arguments, redirections));
    ProgramResult result{code, contents(redirections.out), contents(redirections.err)};
    for (const fs::path& file : {redirections.in, redirections.out, redirections.err}) {
        fs::remove(file);
    }
    return result;
}

std::vector<std::string> with_program(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{KVR_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

} // namespace

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kDeadlineSeconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

ProgramHome::ProgramHome() {
    std::string name = (fs::temp_directory_path() / "kvr-test.XXXXXX").native();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path_ = name;
}

ProgramHome::~ProgramHome() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string ProgramHome::file(const std::string& name, const std::string& text) const {
    const fs::path file = path_ / ("." + name);
    std::ofstream(file, std::ios::binary) << text;
    return file.native();
}

ProgramResult ProgramHome::run(const std::vector<std::string>& arguments, const std::string& input) const {
    return run_and_wait(path_, with_program(arguments), input);
}

ProgramResult ProgramHome::shell(const std::string& line) const {
    return run_and_wait(path_, {"/bin/sh", "-c", line}, "");
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
    if (!whole.is_discarded() && !whole.is_object()) {
        return whole;
    }
    if (!whole.is_discarded() && text.find('\n') != text.size() - 1) {
        return whole;
    }
    nlohmann::json lines = nlohmann::json::array();
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

BackgroundProgram::BackgroundProgram(const ProgramHome& home, const std::vector<std::string>& arguments)
    : pid_(start(home.path(), with_program(arguments),
                 {"/dev/null", home.path() / ".background.out", home.path() / ".background.err"})) {}

BackgroundProgram::~BackgroundProgram() {
    if (pid_ > 0) {
        (void)::kill(pid_, SIGKILL);
        (void)wait();
    }
}

int BackgroundProgram::wait() {
    const int code = exit_code(pid_);
    pid_ = -1;
    return code;
}

} // namespace kvr::test
