// SPDX-License-Identifier: MIT
// A plain connection to the field's listener that carries whatever bytes a test makes up.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvr::test {

class RawLine {
  public:
    explicit RawLine(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawLine() { ::close(fd_); }
    RawLine(RawLine&& other) noexcept : fd_(std::exchange(other.fd_, -1)), connected_(other.connected_) {}
    RawLine(const RawLine&) = delete;
    RawLine& operator=(const RawLine&) = delete;

    [[nodiscard]] bool connected() const { return connected_; }

    /// Sends without waiting for room; false when not everything was taken.
    [[nodiscard]] bool offer(std::string_view bytes) const {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(bytes.size());
    }

    /// Sends all of it; false when the listener ended the line.
    [[nodiscard]] bool send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    /// Waits for the end of the line, which the listener's journal explains.
    void await_end() const {
        std::array<char, 256> sink{};
        while (::recv(fd_, sink.data(), sink.size(), 0) > 0) {
        }
    }

  private:
    int fd_;
    bool connected_;
};

} // namespace kvr::test
