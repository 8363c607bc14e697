// SPDX-License-Identifier: MIT
// The host's log: one line per call, one write per line.
//
// Called about ten times for each message and from signal handlers: a line above the level costs one comparison; a line
// that is written is built on the stack and leaves in one write to a descriptor in append mode. `errno` is preserved. A
// line that cannot be written (disk full, a reader that stalls) is lost, never waited for at length: the channel's work
// goes on without its log.
#include "kavro_log/log.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "kavro_log.h"
#include "kavro_log/line.h"
#include "kavro_log/log_message.h"
#include "kavro_log/stray.h"

namespace {

constexpr std::size_t kQmgrSize = 64;
constexpr int kLevelFailure = 1;
constexpr int kLevelEvent = 3;

int g_level = kvr::kLogDefaultLevel;
int g_fd = STDERR_FILENO;
char g_path[PATH_MAX];  ///< empty: the log is on standard error
bool g_regular = false; ///< a regular file never blocks a writer; what standard error is was not looked at yet
volatile int g_stalled = 0;
bool g_marked = false; ///< lines on standard error begin with their priority
int g_rotation = -1;   ///< readable while the signal of a rotation is pending
char g_qmgr[kQmgrSize];

int open_file(const char* path) {
    // Not through a link, which could lead a privileged worker anywhere; without waiting for a FIFO's reader.
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd >= 0 && fd <= STDERR_FILENO) {
        const int low = fd;
        fd = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(low);
    }
    return fd;
}

struct Origin {
    const char* module;
    const char* file;
    const char* function;
    int line;
};

/// Apart from KVR_LogPrint, so that a line that is dropped does not pay for the buffers.
__attribute__((noinline, format(printf, 3, 0))) void print_line(int level, const Origin& origin, const char* format,
                                                                va_list arguments) {
    const int saved = errno;
    kvr::LogLine line;
    if (g_marked && g_path[0] == '\0') {
        line.add_priority(level);
    }
    line.add_time();
    line.add(" ");
    line.add_number(level);
    line.add(" ");
    line.add_printable(g_qmgr);
    line.add(" ");
    line.add_number(getpid());
    line.add(" ");
    line.add_printable(origin.module);
    line.add(" ");
    line.add_printable(origin.file);
    line.add(":");
    line.add_number(origin.line);
    line.add(" ");
    line.add_printable(origin.function);
    line.add(" ");
    if (format != nullptr) {
        char text[kvr::kMaxLine];
        errno = saved; // a format may hold %m
        const int wanted = std::vsnprintf(text, sizeof(text), format, arguments);
        if (wanted >= 0) {
            const std::size_t full = static_cast<std::size_t>(wanted);
            const bool cut = full >= sizeof(text);
            line.add_masked(text, cut ? sizeof(text) - 1 : full, cut);
        }
    }
    if (const char* id = level <= kvr::kLogMessageLevel ? kvr::log_message() : nullptr; id != nullptr) {
        line.add(" msg[");
        line.add_id(id, kvr::kMessageIdSize);
        line.add("]");
    }
    const std::size_t length = line.finish();
    kvr::pass_on_stray_lines();
    kvr::write_guarded(g_fd, g_regular, g_stalled, line.data(), length);
    errno = saved;
}

__attribute__((format(printf, 2, 3))) void print_own(int level, const char* format, ...) {
    if (level > g_level) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    print_line(level, {"$kavro_log", "log", "log_look", 0}, format, arguments);
    va_end(arguments);
}

/// False with `errno` set.
bool reopen() {
    const int fd = open_file(g_path);
    if (fd < 0) {
        return false;
    }
    g_regular = kvr::is_regular(fd);
    const int moved = dup3(fd, g_fd, O_CLOEXEC); // the number stays, and is never closed for a moment
    const int cause = errno;
    close(fd);
    errno = cause;
    return moved >= 0;
}

} // namespace

namespace kvr {

int log_open(const char* file) {
    int fd = real_stderr();
    const std::size_t length = file == nullptr ? 0 : std::strlen(file);
    if (length >= sizeof g_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (length > 0) {
        fd = open_file(file);
        if (fd < 0) {
            return -1;
        }
    }
    const int old = g_path[0] == '\0' ? -1 : g_fd;
    g_regular = kvr::is_regular(fd);
    g_fd = fd;
    std::memcpy(g_path, length > 0 ? file : "", length + 1);
    if (old >= 0) {
        close(old);
    }
    return 0;
}

int log_rotate_on(int signal) {
    sigset_t rotation;
    sigemptyset(&rotation);
    sigaddset(&rotation, signal);
    const int fd = signalfd(-1, &rotation, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    pthread_sigmask(SIG_BLOCK, &rotation, nullptr);
    g_rotation = fd;
    return 0;
}

void log_look() {
    if (g_rotation < 0) {
        return;
    }
    const int saved = errno;
    signalfd_siginfo came{};
    if (read(g_rotation, &came, sizeof came) > 0 && g_path[0] != '\0') {
        if (reopen()) {
            print_own(kLevelEvent, "log reopened");
        } else {
            print_own(kLevelFailure, "the log cannot be reopened (%m): its lines still go to the file that was open");
        }
    }
    errno = saved;
}

int log_divert_stderr() {
    if (divert_stderr() != 0) {
        return -1;
    }
    if (g_path[0] == '\0') {
        g_fd = real_stderr();
    }
    return 0;
}

void log_restore_stderr() {
    restore_stderr();
    if (g_path[0] == '\0') {
        g_fd = STDERR_FILENO;
    }
}

void log_mark_priorities() {
    g_marked = true;
    mark_stray_lines();
}

void log_set_level(int level) {
    g_level = level;
}

} // namespace kvr

extern "C" {

KVR_EXPORT int KVR_LogSetQMName(char* psQmgrName) {
    if (psQmgrName == nullptr) {
        return -1;
    }
    const std::size_t length = strnlen(psQmgrName, kQmgrSize - 1);
    std::memcpy(g_qmgr, psQmgrName, length);
    g_qmgr[length] = '\0';
    return 0;
}

KVR_EXPORT int KVR_LogPrint(char* /*psTag*/, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc,
                            char* psFmt, ...) {
    if (iLevel > g_level) {
        return 0;
    }
    kvr::log_look();
    va_list arguments;
    va_start(arguments, psFmt);
    print_line(iLevel, {psMod, psFile, psFunc, iLine}, psFmt, arguments);
    va_end(arguments);
    return 0;
}
}
