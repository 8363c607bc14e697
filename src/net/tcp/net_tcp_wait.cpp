// SPDX-License-Identifier: MIT
// Waiting on a socket (contracts in net_tcp_private.h).
#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "net_tcp_private.h"

namespace {

/// A full send buffer is reported writable only once about a third of it is free, which a slow peer may need minutes
/// for. So a wait looks this often at what the peer's end has taken.
constexpr long LOOK_MS = 100;
constexpr long NO_LIMIT = -1;

/// A time-out of the socket's; NO_LIMIT when it has none.
long TimeOutMs(int iSocketNo, int iOption) {
    timeval tLimit{};
    socklen_t iLen = sizeof(tLimit);
    if (getsockopt(iSocketNo, SOL_SOCKET, iOption, &tLimit, &iLen) != 0) {
        return NO_LIMIT;
    }
    const long lLimitMs = tLimit.tv_sec * 1000 + (tLimit.tv_usec + 999) / 1000;
    return lLimitMs > 0 ? lLimitMs : NO_LIMIT;
}

/// As poll for one socket; a negative time is none.
int Poll(int iSocketNo, short iEvents, long lMs) {
    pollfd tPoll{iSocketNo, iEvents, 0};
    return poll(&tPoll, 1, static_cast<int>(std::min<long>(lMs, INT_MAX)));
}

/// Notes what the peer's end has taken and lets the time-out start anew if that was anything.
void LookForProgress(int iSocketNo, uint64_t ullAccepted, T_SEND_WAIT* ptWait, long lNowMs) {
    int iUnacked = 0;
    ioctl(iSocketNo, SIOCOUTQ, &iUnacked);
    if (ullAccepted != ptWait->ullAccepted || iUnacked < ptWait->iUnacked || ptWait->lDeadlineMs == 0) {
        ptWait->lDeadlineMs = lNowMs + ptWait->lLimitMs;
    }
    ptWait->ullAccepted = ullAccepted;
    ptWait->iUnacked = iUnacked;
}

} // namespace

long NowMs() {
    timespec tNow{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &tNow);
    return tNow.tv_sec * 1000 + tNow.tv_nsec / 1000000;
}

int BeginNonBlock(int iSocketNo) {
    const int iFlags = fcntl(iSocketNo, F_GETFL);
    const bool bBlocks = iFlags >= 0 && (iFlags & O_NONBLOCK) == 0;
    return bBlocks && fcntl(iSocketNo, F_SETFL, iFlags | O_NONBLOCK) == 0 ? iFlags : -1;
}

void EndNonBlock(int iSocketNo, int iFlags) {
    const int iErrno = errno;
    if (iFlags >= 0) {
        fcntl(iSocketNo, F_SETFL, iFlags);
    }
    errno = iErrno;
}

int WaitToSend(int iSocketNo, uint64_t ullAccepted, T_SEND_WAIT* ptWait) {
    if (ptWait->lLimitMs == 0) {
        ptWait->lLimitMs = TimeOutMs(iSocketNo, SO_SNDTIMEO);
    }
    if (ptWait->lLimitMs == NO_LIMIT) {
        return Poll(iSocketNo, POLLOUT, NO_LIMIT) < 0 ? errno : 0;
    }
    for (;;) {
        const long lNowMs = NowMs();
        LookForProgress(iSocketNo, ullAccepted, ptWait, lNowMs);
        const long lLeftMs = ptWait->lDeadlineMs - lNowMs;
        if (lLeftMs <= 0) {
            return EAGAIN;
        }
        const int iReady = Poll(iSocketNo, POLLOUT, std::min(lLeftMs, LOOK_MS));
        if (iReady != 0) {
            return iReady < 0 ? errno : 0;
        }
    }
}

int WaitToRead(int iSocketNo) {
    int iLowat = 1;
    socklen_t iLen = sizeof(iLowat);
    const int iOne = 1;
    getsockopt(iSocketNo, SOL_SOCKET, SO_RCVLOWAT, &iLowat, &iLen);
    if (iLowat > iOne) {
        setsockopt(iSocketNo, SOL_SOCKET, SO_RCVLOWAT, &iOne, sizeof(iOne));
    }
    const int iReady = Poll(iSocketNo, POLLIN, TimeOutMs(iSocketNo, SO_RCVTIMEO));
    const int iErrno = iReady < 0 ? errno : EAGAIN;
    if (iLowat > iOne) {
        setsockopt(iSocketNo, SOL_SOCKET, SO_RCVLOWAT, &iLowat, sizeof(iLowat));
    }
    return iReady > 0 ? 0 : iErrno;
}
