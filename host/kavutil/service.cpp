// SPDX-License-Identifier: MIT
#include "kavutil/service.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace kvr {
namespace {

/// Length of the address, 0 when the text names no socket.
socklen_t address_of(const char* name, sockaddr_un& address) {
    const std::size_t length = name == nullptr ? 0 : std::strlen(name);
    if (length < 2 || length > sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) {
        return 0;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@') {
        address.sun_path[0] = '\0'; // a name that is no file's
    }
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

} // namespace

void tell_service_manager(const char* lines) {
    sockaddr_un address{};
    const socklen_t length = address_of(std::getenv("NOTIFY_SOCKET"), address);
    if (length == 0) {
        return;
    }
    const int saved = errno;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        const timeval longest{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
        // The cast is the socket interface's. Nobody is left to tell when this fails.
        (void)sendto(fd, lines, std::strlen(lines), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), length);
        close(fd);
    }
    errno = saved;
}

bool journal_reads(int fd) {
    const char* const stream = std::getenv("JOURNAL_STREAM"); // "device:inode"; whoever redirects inherits it, too
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat info {};
    return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && fstat(fd, &info) == 0 &&
           info.st_dev == device && info.st_ino == inode;
}

const char* journal_mark(int fd, const char* mark) {
    return journal_reads(fd) ? mark : "";
}

} // namespace kvr
