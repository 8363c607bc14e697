// SPDX-License-Identifier: MIT
// The named FIFO on which the drainer of an empty queue waits.
#include "store_lmdb/wake_fifo.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/permissions.h"
#include "store/system_error.h"
#include "store/waits.h"

namespace kvr {

namespace {

/// Opened for reading and writing: its reader never comes to an end when the last putter closes it, and a putter meets
/// no SIGPIPE where nobody reads. Nothing for anything but a FIFO, with the reason in errno, which is 0 when something
/// else lies there.
UniqueFd open_fifo(const std::filesystem::path& path) {
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    struct stat info {};
    if (fd && (::fstat(fd.get(), &info) != 0 || !S_ISFIFO(info.st_mode))) {
        fd.reset();
        errno = 0;
    }
    return fd;
}

} // namespace

void WakeFifo::create(const std::filesystem::path& path) {
    make_private_fifo(path);
}

WakeFifo::WakeFifo(const std::filesystem::path& path) {
    create(path);
    fd_ = open_fifo(path);
    if (!fd_ && errno != 0) {
        throw_system("open", path, errno);
    }
    if (!fd_) {
        throw Error(Errc::kPermission, path.string() + " is no FIFO: remove it, it is made anew");
    }
}

WakeFifo::Woken WakeFifo::wait(const sigset_t& mask, std::chrono::milliseconds time, int interrupt) {
    std::array<pollfd, 2> waited{{{fd_.get(), POLLIN, 0}, {interrupt, POLLIN, 0}}};
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const timespec limit{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
    const int ready = ::ppoll(waited.data(), waited.size(), &limit, &mask);
    if (ready < 0 && errno != EINTR) {
        throw Error(Errc::kIo, "cannot wait for a message: " + std::string(std::strerror(errno)));
    }
    if (ready <= 0) { // an alarm of each second, a heartbeat's, leaves no other occasion
        look_while_idle();
    }
    if (waited[1].revents != 0) {
        return Woken::kInterrupt; // the wake-up, if there was one, is for others who wait
    }
    if (waited[0].revents != 0) {
        std::array<char, 64> bytes{};
        while (::read(fd_.get(), bytes.data(), bytes.size()) > 0) {
        }
    }
    return ready < 0 ? Woken::kSignal : Woken::kLook;
}

void WakeFifo::wake(const std::filesystem::path& path) {
    if (const UniqueFd fd = open_fifo(path)) {
        [[maybe_unused]] const ssize_t written = ::write(fd.get(), "w", 1); // a full FIFO wakes as well
    }
}

} // namespace kvr
