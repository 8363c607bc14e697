// SPDX-License-Identifier: MIT
// The TLS helpers' lines on standard error (contracts in net_tcp_private.h).
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>

#include <poll.h>
#include <unistd.h>

#include "net_tcp_private.h"

/// Two file names' worth. A pipe that has room at all takes a line of up to PIPE_BUF whole.
static constexpr int STDERR_LINE_LEN = 1024;
static_assert(STDERR_LINE_LEN <= PIPE_BUF);

void ErrLine(const char* psFmt, ...) {
    char sLine[STDERR_LINE_LEN];
    const int iErrno = errno;
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    int iLen = vsnprintf(sLine, sizeof(sLine) - 1, psFmt, vaArgs);
    va_end(vaArgs);
    if (iLen > static_cast<int>(sizeof(sLine)) - 2) {
        iLen = static_cast<int>(sizeof(sLine)) - 2;
    }
    pollfd tPoll{STDERR_FILENO, POLLOUT, 0};
    if (iLen >= 0 && poll(&tPoll, 1, 0) == 1 && (tPoll.revents & POLLOUT) != 0) {
        sLine[iLen] = '\n';
        // Nothing is left to report to when standard error itself fails.
        [[maybe_unused]] const ssize_t lRet = write(STDERR_FILENO, sLine, static_cast<size_t>(iLen) + 1);
    }
    errno = iErrno;
}
