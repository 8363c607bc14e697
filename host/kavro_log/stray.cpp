// SPDX-License-Identifier: MIT
#include "kavro_log/stray.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kavro_log/line.h"

extern "C" void __sanitizer_set_report_fd(void*) __attribute__((weak)); // NOLINT(bugprone-reserved-identifier)

namespace kvr {
namespace {

/// How long a line waits for the reader of a full pipe, once.
constexpr int kStalledWaitMs = 200;
/// Longer writes are cut.
constexpr std::size_t kLongestWrite = 2048;

int g_real = STDERR_FILENO;
bool g_real_regular = false;
volatile int g_real_stalled = 0;
bool g_marked = false; ///< for the journal
int g_pipe = -1;       ///< its end for reading, -1 while nothing is diverted
std::atomic_flag g_passing_on = ATOMIC_FLAG_INIT;

void write_stamped(const char* text, std::size_t length) {
    constexpr int kLevelWarning = 2;
    LogLine line;
    if (g_marked) {
        line.add_priority(kLevelWarning);
    }
    line.add_time();
    line.add(" ");
    line.add_masked(text, length, false);
    const std::size_t size = line.finish();
    write_guarded(g_real, g_real_regular, g_real_stalled, line.data(), size);
}

void write_each_stamped(const char* text, std::size_t length) {
    while (length > 0) {
        const void* const end = std::memchr(text, '\n', length);
        const std::size_t size =
            end == nullptr ? length : static_cast<std::size_t>(static_cast<const char*>(end) - text);
        if (size > 0) {
            write_stamped(text, size);
        }
        const std::size_t used = end == nullptr ? size : size + 1;
        text += used;
        length -= used;
    }
}

/// The C library says why before it aborts. Calls pass_on_stray_lines and raise, both safe here; the action was reset.
void on_abort(int signal) {
    pass_on_stray_lines();
    raise(signal);
}

void watch_abort() {
    struct sigaction action {};
    action.sa_handler = on_abort;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGABRT, &action, nullptr);
}

} // namespace

bool is_regular(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

void write_guarded(int fd, bool regular, volatile int& stalled, const char* line, std::size_t length) {
    if (!regular) {
        pollfd entry{fd, POLLOUT, 0};
        if (poll(&entry, 1, stalled != 0 ? 0 : kStalledWaitMs) != 1 || (entry.revents & POLLOUT) == 0) {
            stalled = 1;
            return;
        }
        stalled = 0;
    }
    // A line that meets a full disk is lost; there is nobody to tell.
    [[maybe_unused]] const ssize_t wrote = write(fd, line, length);
}

int real_stderr() {
    return g_real;
}

int divert_stderr() {
    if (g_pipe >= 0 || __sanitizer_set_report_fd != nullptr) {
        return 0;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK | O_DIRECT) != 0) { // O_DIRECT: each read gives what one write took
        return -1;
    }
    const int real = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (real < 0 || dup2(ends[1], STDERR_FILENO) < 0) {
        for (const int fd : {ends[0], ends[1], real}) {
            close(fd);
        }
        return -1;
    }
    close(ends[1]);
    g_real = real;
    g_real_regular = is_regular(real);
    g_pipe = ends[0];
    watch_abort();
    std::atexit(restore_stderr);
    return 0;
}

void restore_stderr() {
    if (g_pipe < 0) {
        return;
    }
    dup2(g_real, STDERR_FILENO);
    pass_on_stray_lines();
    close(g_pipe);
    close(g_real);
    g_pipe = -1;
    g_real = STDERR_FILENO;
}

void mark_stray_lines() {
    g_marked = true;
}

void pass_on_stray_lines() {
    // Whoever interrupts or meets another copier leaves the rest to that one.
    if (g_pipe < 0 || g_passing_on.test_and_set()) {
        return;
    }
    char text[kLongestWrite];
    for (ssize_t length = 0; (length = read(g_pipe, text, sizeof text)) > 0;) {
        write_each_stamped(text, static_cast<std::size_t>(length));
    }
    g_passing_on.clear();
}

} // namespace kvr
