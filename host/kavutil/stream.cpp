// SPDX-License-Identifier: MIT
// Exact-length read and write. Signals, short counts and time limits are handled here and nowhere else.
//
// The write is called by the main flow and, for the heartbeat, by a signal handler: system calls only. A stop ends the
// process from inside it in the main flow; in a handler, or where the main flow holds signals, it fails with EINTR and
// the main flow stops at its next stop point.
#include "kavutil.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

/// A full send buffer is reported writable only once about a third of it is free, which a slow peer may need minutes
/// for. So a wait looks this often at what the peer's end has taken.
constexpr std::int64_t kLookMs = 100;
constexpr std::int64_t kNoLimit = -1;

std::int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// The socket's send time-out in milliseconds.
std::int64_t send_limit_ms(int sock) {
    timeval limit{};
    socklen_t length = sizeof(limit);
    if (getsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, &length) != 0 || (limit.tv_sec == 0 && limit.tv_usec == 0)) {
        return kNoLimit;
    }
    return static_cast<std::int64_t>(limit.tv_sec) * 1000 + (limit.tv_usec + 999) / 1000;
}

/// Bytes sent that the peer's end has not taken.
int unacknowledged(int sock) {
    int bytes = 0;
    ioctl(sock, SIOCOUTQ, &bytes);
    return bytes;
}

/// To be called when a write had to wait. False with `errno` set when it must not go on.
bool may_go_on() {
    if (!kvr::stop_pending()) {
        return true;
    }
    if (kvr::in_signal_handler()) {
        errno = EINTR;
        return false;
    }
    kvr::stop_point(kvr::StopPlace::kMidMessage);
    return true; // the shutdown's own write
}

/// Pipes, terminals and files: no time limit exists for them.
bool write_rest(int fd, const char* data, std::size_t left) {
    while (left > 0) {
        const ssize_t wrote = write(fd, data, left);
        if (wrote > 0) {
            data += wrote;
            left -= static_cast<std::size_t>(wrote);
        } else if (wrote == 0 || errno != EINTR) {
            return false;
        }
        if (left > 0 && !may_go_on()) {
            return false;
        }
    }
    return true;
}

/// The send time-out of one write. It starts anew whenever the peer's end took something.
struct SendLimit {
    std::int64_t limit;    ///< kNoLimit: none
    std::int64_t progress; ///< when the peer's end last took something
    int waiting;           ///< bytes that it had not taken at the last look
};

/// Milliseconds until the next look: kNoLimit without a time-out, 0 when it has run out.
std::int64_t look_for_progress(int sock, SendLimit& limit) {
    if (limit.limit == kNoLimit) {
        return kNoLimit;
    }
    const std::int64_t now = now_ms();
    const int waiting = unacknowledged(sock);
    if (waiting < limit.waiting) {
        limit.progress = now;
    }
    limit.waiting = waiting;
    return std::clamp<std::int64_t>(limit.progress + limit.limit - now, 0, kLookMs);
}

/// Sends what a first, incomplete send left over.
bool send_rest(int sock, const char* data, std::size_t left) {
    SendLimit limit{send_limit_ms(sock), now_ms(), unacknowledged(sock)};
    while (left > 0) {
        if (!may_go_on()) {
            return false;
        }
        const std::int64_t wait = look_for_progress(sock, limit);
        if (wait == 0) {
            errno = EAGAIN; // as the system reports its own send time-out
            return false;
        }
        pollfd entry{sock, POLLOUT, 0};
        const int ready = poll(&entry, 1, static_cast<int>(wait));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready <= 0) {
            continue;
        }
        const ssize_t sent = send(sock, data, left, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            data += sent;
            left -= static_cast<std::size_t>(sent);
            limit.progress = now_ms();
            limit.waiting = unacknowledged(sock);
        } else if (sent < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" {

KVR_EXPORT int streamReadNByte(void* pBuf, int iLen, int* piReadLen, int iSock) {
    int done = 0;
    int unused = 0;
    int& progress = piReadLen != nullptr ? *piReadLen : unused;
    progress = 0;
    if (iLen < 0 || (pBuf == nullptr && iLen > 0)) {
        errno = EINVAL;
        return -1;
    }
    while (done < iLen) {
        const ssize_t got = read(iSock, static_cast<char*>(pBuf) + done, static_cast<std::size_t>(iLen - done));
        if (got == 0) {
            return 0;
        }
        if (got > 0) {
            done += static_cast<int>(got);
            progress = done;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return iLen;
}

KVR_EXPORT int streamWriteNByte(void* pBuf, int iLen, int iSock) {
    if (iLen < 0 || (pBuf == nullptr && iLen > 0)) {
        errno = EINVAL;
        return -1;
    }
    if (iLen == 0) {
        return 0;
    }
    // A message that makes progress is finished when that takes no longer than a stop may.
    if (kvr::stop_overdue() && !may_go_on()) {
        return -1;
    }
    const char* data = static_cast<const char*>(pBuf);
    const std::size_t length = static_cast<std::size_t>(iLen);
    const ssize_t sent = send(iSock, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == iLen) {
        return iLen;
    }
    if (sent < 0 && errno == ENOTSOCK) {
        return write_rest(iSock, data, length) ? iLen : -1;
    }
    if (sent < 0 && errno != EINTR && errno != EAGAIN) {
        return -1;
    }
    const std::size_t done = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    return send_rest(iSock, data + done, length - done) ? iLen : -1;
}
}
