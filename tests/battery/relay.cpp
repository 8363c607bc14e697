// SPDX-License-Identifier: MIT
#include "relay.h"

#include <poll.h>

#include "support/loopback.h"

namespace kvr::test {
namespace {

bool send_all(int to, const char* bytes, std::size_t size) {
    return ::send(to, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

/// An end of stream, and the other end's; what comes until then is nobody's.
void finish(int line) {
    char gone[65536];
    ::shutdown(line, SHUT_WR);
    while (::recv(line, gone, sizeof gone, 0) > 0) {
    }
}

} // namespace

void Relay::cut(std::size_t times, std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    times_ = times;
    bytes_ = bytes;
    left_ = random_() % (bytes_ + 1);
}

std::size_t Relay::passing(std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    if (times_ == 0 || left_ >= bytes) {
        left_ -= std::min<std::uint64_t>(left_, bytes);
        return bytes;
    }
    --times_;
    ++cuts_;
    return std::exchange(left_, random_() % (bytes_ + 1));
}

void Relay::carry_on(int worker, int listener) {
    char chunk[65536];
    pollfd both[] = {{worker, POLLIN, 0}, {listener, POLLIN, 0}};
    while (::poll(both, 2, -1) > 0) {
        const bool back = both[1].revents != 0;
        const ssize_t got = ::recv(back ? listener : worker, chunk, sizeof chunk, 0);
        if (got <= 0) {
            return back ? void() : finish(listener);
        }
        const auto size = static_cast<std::size_t>(got);
        const std::size_t passed = back ? size : passing(size);
        if (!send_all(back ? worker : listener, chunk, passed) || passed < size) {
            return;
        }
    }
}

void Relay::carry(int worker) {
    ++lines_;
    const UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect_to_loopback(listener.get(), target_) && passing(1) == 1) {
        carry_on(worker, listener.get());
    }
    const linger reset{random_() % 2 == 0 ? 1 : 0, 0};
    for (const int line : {worker, listener.get()}) {
        ::setsockopt(line, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    if (reset.l_onoff == 0) { // at the listener lines may overlap
        finish(worker);
    }
}

} // namespace kvr::test
