// SPDX-License-Identifier: MIT
#include "exec_command.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include "kavutil/error.h"

namespace kvr {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStopPatience{10}; ///< of a stop with a command
constexpr timespec kStopLook{.tv_sec = 1, .tv_nsec = 0};
constexpr int kShellNotFound = 127; ///< as a shell says it

[[noreturn]] void fail_command(const char* what) {
    throw Error(Errc::kIo, fmt::format("{} ({}): free memory, processes or descriptors, then try again", what,
                                       std::strerror(errno)));
}

bool is_ignored(int signal) {
    struct sigaction action {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// A file in memory: a command that does not read it, or leaves it to others that live on, holds nobody up.
UniqueFd memory_file(std::string_view bytes) {
    UniqueFd file(::memfd_create("message", MFD_CLOEXEC));
    if (!file) {
        fail_command("there is no room for a message's data");
    }
    for (std::string_view rest = bytes; !rest.empty();) {
        const ssize_t written = ::write(file.get(), rest.data(), rest.size());
        if (written < 0 && errno != EINTR) {
            fail_command("there is no room for a message's data");
        }
        rest.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    if (::lseek(file.get(), 0, SEEK_SET) != 0) {
        fail_command("a message's data cannot be read again");
    }
    return file;
}

/// The command's process. It ends with its parent, so that it does not work on a message that somebody else has by
/// then.
[[noreturn]] void become_command(const char* line, int input, char* const* environment, const sigset_t& mask,
                                 pid_t parent) {
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() == parent && ::dup2(input, STDIN_FILENO) == STDIN_FILENO) {
        (void)::setpgid(0, 0);
        (void)std::signal(SIGPIPE, SIG_DFL);
        (void)::sigprocmask(SIG_SETMASK, &mask, nullptr);
        ::execle("/bin/sh", "sh", "-c", line, nullptr, environment);
    }
    ::_exit(kShellNotFound);
}

} // namespace

ExecCommand::ExecCommand(std::string line) : line_(std::move(line)) {
    sigemptyset(&stops_);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (!is_ignored(signal)) { // of a job in the background
            sigaddset(&stops_, signal);
        }
    }
    watched_ = stops_;
    sigaddset(&watched_, SIGCHLD);
    (void)std::signal(SIGCHLD, SIG_DFL); // ignored, it takes the exit codes with it
    (void)::sigprocmask(SIG_BLOCK, &watched_, &original_);
    stop_fd_.reset(::signalfd(-1, &stops_, SFD_CLOEXEC));
    if (!stop_fd_) {
        fail_command("signals cannot be waited for");
    }
}

bool ExecCommand::run(std::string_view input, const std::vector<std::string>& environment) {
    const UniqueFd file = memory_file(input);
    std::vector<char*> entries;
    for (const std::string& entry : environment) {
        entries.push_back(const_cast<char*>(entry.c_str())); // NOLINT: exec takes them so, and changes none
    }
    entries.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        fail_command("the command cannot be started");
    }
    if (child == 0) {
        become_command(line_.c_str(), file.get(), entries.data(), original_, parent);
    }
    (void)::setpgid(child, child); // whichever of the two is first
    wait(child);
    return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

void ExecCommand::wait(pid_t child) {
    std::optional<Clock::time_point> end;
    pid_t ended = 0;
    while ((ended = ::waitpid(child, &status_, WNOHANG)) == 0) {
        const int signal = ::sigtimedwait(&watched_, nullptr, &kStopLook);
        if (signal > 0 && signal != SIGCHLD) {
            (void)::kill(-child, stopped_ ? SIGKILL : SIGTERM);
            stopped_ = true;
            end = end.value_or(Clock::now() + kStopPatience);
        }
        if (end && Clock::now() >= *end) {
            (void)::kill(-child, SIGKILL);
        }
    }
    if (ended < 0) {
        fail_command("how the command ended is not known");
    }
}

std::string ExecCommand::end_text() const {
    return WIFSIGNALED(status_) ? fmt::format("was ended by signal {}", WTERMSIG(status_))
                                : fmt::format("ended with exit code {}", WEXITSTATUS(status_));
}

bool ExecCommand::stopped() const {
    sigset_t pending;
    sigset_t meant;
    return stopped_ ||
           (::sigpending(&pending) == 0 && ::sigandset(&meant, &stops_, &pending) == 0 && ::sigisemptyset(&meant) == 0);
}

} // namespace kvr
