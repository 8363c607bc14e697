// SPDX-License-Identifier: MIT
// Sockets at this machine's loopback address.
#pragma once

#include <stdexcept>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace kvr::test {

/// Binds to a port of the system's choice, and returns it.
inline int bind_to_loopback(int socket) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (::bind(socket, any, length) != 0 || ::getsockname(socket, any, &length) != 0) {
        throw std::runtime_error("no port to be had");
    }
    return ntohs(address.sin_port);
}

/// False when it fails.
inline bool connect_to_loopback(int socket, int port) {
    const sockaddr_in other{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&other), sizeof other) == 0;
}

} // namespace kvr::test
