// SPDX-License-Identifier: MIT
// Host names to IPv4 addresses.
//
// The system's resolver waits through signals, for tens of seconds when a name server is silent. A stop must not: so a
// look-up runs on a helper thread, all signals blocked, while the main flow waits where a signal can wake it. Dotted
// addresses need neither resolver nor thread. For the main flow only.
#include "kavutil.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kavro_log.h"
#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

struct Lookup {
    const char* host;
    in_addr address;
    int error;   ///< 0, or the errno that tells the cause
    int code;    ///< the resolver's own
    int done_fd; ///< closed when the look-up is done; below 0: nobody waits on it
};

/// The resolver's codes are no errno values, but errno is all that the caller reports.
int errno_of(int code) {
    switch (code) {
    case EAI_SYSTEM:
        return errno != 0 ? errno : EIO;
    case EAI_AGAIN:
        return EAGAIN;
    case EAI_MEMORY:
        return ENOMEM;
    case EAI_FAMILY:
    case EAI_ADDRFAMILY:
        return EAFNOSUPPORT;
    default:
        return ENXIO;
    }
}

void* look_up(void* argument) {
    Lookup& lookup = *static_cast<Lookup*>(argument);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    errno = 0;
    const int code = getaddrinfo(lookup.host, nullptr, &hints, &found);
    if (code == 0) {
        sockaddr_in address{};
        std::memcpy(&address, found->ai_addr, sizeof(address));
        lookup.address = address.sin_addr;
        lookup.error = 0;
        freeaddrinfo(found);
    } else {
        lookup.error = errno_of(code);
        lookup.code = code;
    }
    if (lookup.done_fd >= 0) {
        close(lookup.done_fd);
    }
    return nullptr;
}

bool start_thread(pthread_t& thread, Lookup& lookup) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // inherited: the channel's handlers run on the main flow only
    const int error = pthread_create(&thread, nullptr, look_up, &lookup);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}

void look_up_interruptibly(Lookup& lookup) {
    int done[2];
    pthread_t thread{};
    if (pipe2(done, O_CLOEXEC) != 0) {
        look_up(&lookup);
        return;
    }
    lookup.done_fd = done[1];
    if (!start_thread(thread, lookup)) {
        close(done[1]);
        lookup.done_fd = -1;
        look_up(&lookup);
    } else {
        pollfd entry{done[0], POLLIN, 0};
        while (poll(&entry, 1, -1) < 0 && errno == EINTR) {
            kvr::stop_point(kvr::StopPlace::kMidMessage);
        }
        pthread_join(thread, nullptr);
    }
    close(done[0]);
}

/// The caller's own line has neither the name nor the resolver's reason.
void log_failure(const Lookup& lookup) {
    constexpr int kLevelFailure = 1;
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, kLevelFailure, const_cast<char*>("$kavutil"), const_cast<char*>("resolve"), __LINE__,
                 "sockGetHostIp", const_cast<char*>("host[%s] has no IPv4 address that can be found: %s"), lookup.host,
                 lookup.code == EAI_SYSTEM ? std::strerror(lookup.error) : gai_strerror(lookup.code));
}

} // namespace

extern "C" {

KVR_EXPORT int sockGetHostIp(char* psHost, char* psAddr) {
    kvr::stop_point(kvr::StopPlace::kMidMessage);
    if (psHost == nullptr || psAddr == nullptr || psHost[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    Lookup lookup{psHost, {}, 0, 0, -1};
    if (inet_pton(AF_INET, psHost, &lookup.address) != 1) {
        look_up_interruptibly(lookup);
        kvr::stop_point(kvr::StopPlace::kMidMessage);
    }
    if (lookup.error != 0) {
        log_failure(lookup);
        errno = lookup.error;
        return -1;
    }
    return inet_ntop(AF_INET, &lookup.address, psAddr, INET_ADDRSTRLEN) != nullptr ? 0 : -1;
}
}
