// SPDX-License-Identifier: MIT
// Processes: does one exist, send it a signal. An id below 1 names a group of processes to the system, never one
// process: such ids are refused here, whoever passes them.
#include "kavutil.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

/// True for a process that has ended and only waits to be reaped: it runs nothing and holds nothing, so it must not
/// keep a channel from starting where nobody reaps (a container without an init process).
bool is_zombie(int pid) {
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char text[512];
    const ssize_t got = read(fd, text, sizeof(text) - 1);
    close(fd);
    if (got <= 0) {
        return false;
    }
    text[got] = '\0';
    // The state follows the command's name, which may hold any character, a closing parenthesis too.
    const char* name_end = std::strrchr(text, ')');
    return name_end != nullptr && name_end[1] == ' ' && (name_end[2] == 'Z' || name_end[2] == 'X');
}

} // namespace

extern "C" {

KVR_EXPORT int procIsExist(int iPid) {
    if (iPid < 1) {
        return 0;
    }
    // The one operation that a sender calls between a failed send and the get, which uses the message up.
    if (kvr::stop_pending() && !kvr::in_signal_handler()) {
        kvr::stop_point(kvr::StopPlace::kMidMessage);
    }
    const int saved = errno;
    const bool exists = (kill(iPid, 0) == 0 || errno == EPERM) && !is_zombie(iPid);
    errno = saved;
    return exists ? 1 : 0;
}

KVR_EXPORT int procSndSig2Proc(int iPid, int iSig) {
    if (iPid < 1) {
        errno = EINVAL;
        return -1;
    }
    return kill(iPid, iSig);
}
}
