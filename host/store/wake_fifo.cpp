// SPDX-License-Identifier: MIT
// The named FIFO on which the drainer of an empty queue waits.
#include "wake_fifo.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "permissions.h"
#include "store.h"
#include "system_error.h"

namespace kvr {

namespace {

/// A putter that is killed between its commit and its wake-up wakes nobody: the drainer looks again by itself.
constexpr timespec kSecondLook{.tv_sec = 1, .tv_nsec = 0};

void (*g_idle_look)() = nullptr;

} // namespace

void set_idle_look(void (*look)()) {
    g_idle_look = look;
}

void SignalBlock::block() {
    if (blocked_) {
        return;
    }
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
        sigdelset(&set, fault);
    }
    pthread_sigmask(SIG_BLOCK, &set, &original_);
    blocked_ = true;
}

void SignalBlock::restore() {
    if (blocked_) {
        blocked_ = false;
        pthread_sigmask(SIG_SETMASK, &original_, nullptr);
    }
}

void WakeFifo::create(const std::filesystem::path& path) {
    if (::mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) {
        throw_system("make", path, errno);
    }
    make_private_file(path);
}

WakeFifo::WakeFifo(const std::filesystem::path& path) {
    create(path);
    // Reading and writing: it never comes to its end when the last putter closes it.
    fd_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd_ < 0) {
        throw_system("open", path, errno);
    }
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || !S_ISFIFO(info.st_mode)) {
        ::close(fd_);
        throw Error(Errc::kPermission, path.string() + " is no FIFO: remove it, it is made anew");
    }
}

WakeFifo::~WakeFifo() {
    ::close(fd_);
}

bool WakeFifo::wait(const sigset_t& mask) {
    pollfd waited{.fd = fd_, .events = POLLIN, .revents = 0};
    const int ready = ::ppoll(&waited, 1, &kSecondLook, &mask);
    if (ready < 0 && errno != EINTR) {
        throw Error(Errc::kIo, "cannot wait for a message: " + std::string(std::strerror(errno)));
    }
    if (ready == 0 && g_idle_look != nullptr) {
        g_idle_look();
    }
    if (ready > 0) {
        std::array<char, 64> bytes{};
        while (::read(fd_, bytes.data(), bytes.size()) > 0) {
        }
    }
    return ready >= 0;
}

void WakeFifo::wake(const std::filesystem::path& path) {
    // Opened for reading too: without a reader a write would raise SIGPIPE in the putter.
    const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return;
    }
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode)) {
        [[maybe_unused]] const ssize_t written = ::write(fd, "w", 1); // a full FIFO wakes as well
    }
    ::close(fd);
}

} // namespace kvr
