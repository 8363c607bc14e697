// SPDX-License-Identifier: MIT
// Sockets: readability, options, local address.
#include "kavutil.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

int set_timeout(int sock, int option, int seconds) {
    const timeval timeout{seconds > 0 ? seconds : 0, 0};
    return setsockopt(sock, SOL_SOCKET, option, &timeout, sizeof(timeout));
}

} // namespace

extern "C" {

// poll() and not select(): descriptors of 1,024 and more do not fit a set. Like select() it honours SO_RCVLOWAT, and
// reports an end of stream in any case.
KVR_EXPORT int sockCanRead(int iSock) {
    if (iSock < 0) {
        errno = EBADF;
        return -1;
    }
    // The one operation that a sender calls on the way of a TLS message, whose writes are not the host's.
    if (kvr::stop_overdue() && !kvr::in_signal_handler()) {
        kvr::stop_point(kvr::StopPlace::kMidMessage);
    }
    pollfd entry{iSock, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, 0);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return ready;
    }
    if ((entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return 1;
}

KVR_EXPORT int sockGetLocalAddr(int iSock, char* psAddr, int* piPort) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    // sockaddr is what the call takes for every family.
    if (getsockname(iSock, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return -1;
    }
    if (address.sin_family != AF_INET) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    if (psAddr != nullptr && inet_ntop(AF_INET, &address.sin_addr, psAddr, INET_ADDRSTRLEN) == nullptr) {
        return -1;
    }
    if (piPort != nullptr) {
        *piPort = ntohs(address.sin_port);
    }
    return 0;
}

KVR_EXPORT int sockSetKeepAlive(int iSock) {
    const int on = 1;
    return setsockopt(iSock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
}

KVR_EXPORT int sockSetRTimeOut(int iSock, int iTimeOut) {
    return set_timeout(iSock, SO_RCVTIMEO, iTimeOut);
}

KVR_EXPORT int sockSetSTimeOut(int iSock, int iTimeOut) {
    return set_timeout(iSock, SO_SNDTIMEO, iTimeOut);
}
}
