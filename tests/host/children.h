// SPDX-License-Identifier: MIT
// Child processes of a test: their end is always waited for with a deadline, and no child outlives its test.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace kvr::test {

class Child {
  public:
    /// Throws for a fork that failed: -1 names every process to kill.
    explicit Child(pid_t pid) : pid_(pid > 0 ? pid : throw std::runtime_error("no process to be had")) {}
    ~Child() { end(); }
    Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Runs `work` in a forked child, which ends with its result; an exception of it is the child's abort.
    static Child fork_off(const std::function<int()>& work) noexcept {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(work());
        }
        return Child(pid);
    }

    [[nodiscard]] pid_t pid() const { return pid_; }

    /// Waits for the end: exit status, or minus the signal that ended it; -1000 when it did not end (it is killed
    /// then).
    int result() { return result_under(0); }

    /// As result(), sending `signal` again and again until the child ends.
    int result_under(int signal) {
        const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        pollfd entry{fd, POLLIN, 0};
        do {
            kill(pid_, signal);
        } while (poll(&entry, 1, 10) != 1 && std::chrono::steady_clock::now() < deadline);
        close(fd);
        const int status = end();
        return entry.revents == 0 ? -1000 : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    int end() {
        int status = 0;
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
            pid_ = 0;
        }
        return status;
    }

    pid_t pid_;
};

/// Alarms for this process from now on, so often; 0: no more.
inline void repeat_alarm(int microseconds) {
    const itimerval often{{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

/// Blocks or unblocks a signal.
inline void mask_signal(int how, int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(how, &set, nullptr);
}

} // namespace kvr::test
