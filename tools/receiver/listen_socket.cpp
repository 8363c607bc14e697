// SPDX-License-Identifier: MIT
#include "listen_socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "kavutil/error.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr int kMaxPort = 65535;
// A peer whose machine vanished is found out after two minutes.
constexpr int kKeepIdleSeconds = 60;
constexpr int kKeepIntervalSeconds = 10;
constexpr int kKeepCount = 6;

struct AddressFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressFree>;

std::string system_text() {
    return fmt::format("[{}:{}]", errno, std::strerror(errno));
}

bool set_option(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

int port_of(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 v6{};
        std::memcpy(&v6, &address, sizeof v6);
        return ntohs(v6.sin6_port);
    }
    sockaddr_in v4{};
    std::memcpy(&v4, &address, sizeof v4);
    return ntohs(v4.sin_port);
}

template <class To, class From>
To* address_cast(From* from) {
    return static_cast<To*>(static_cast<void*>(from));
}

} // namespace

UniqueFd open_listen_socket(const std::string& address, int port, int receive_buffer, int& bound) {
    if (port < 0 || port > kMaxPort) {
        throw Error(Errc::kInvalid, fmt::format("port {} is out of range: use 1 to {}, or 0 for any", port, kMaxPort));
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int code = ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found); code != 0) {
        throw Error(Errc::kInvalid, fmt::format("'{}' is not an address of this machine: give a numeric one such as "
                                                "0.0.0.0 or 127.0.0.1",
                                                escaped(address)));
    }
    const AddressList list(found);
    UniqueFd fd(::socket(list->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || !set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1) ||
        (receive_buffer > 0 && !set_option(fd.get(), SOL_SOCKET, SO_RCVBUF, receive_buffer))) {
        throw Error(Errc::kIo, fmt::format("cannot make a socket {}", system_text()));
    }
    if (::bind(fd.get(), list->ai_addr, list->ai_addrlen) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
        const char* const remedy = errno == EACCES ? "a port below 1024 needs root, or the capability "
                                                     "CAP_NET_BIND_SERVICE: choose a higher --port"
                                                   : "choose another --port or --bind, or stop what uses it";
        throw Error(Errc::kIo,
                    fmt::format("cannot listen on {} port {} {}: {}", escaped(address), port, system_text(), remedy));
    }
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    if (::getsockname(fd.get(), address_cast<sockaddr>(&own), &length) != 0) {
        throw Error(Errc::kIo, fmt::format("cannot find the port {}", system_text()));
    }
    bound = port_of(own);
    return fd;
}

Accepted accept_connection(int listener, UniqueFd& connection, std::string& peer) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    connection.reset(::accept4(listener, address_cast<sockaddr>(&address), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!connection) {
        const bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return exhausted ? Accepted::kExhausted : Accepted::kNone; // others concern a connection that is gone
    }
    std::array<char, NI_MAXHOST> host{};
    if (::getnameinfo(address_cast<sockaddr>(&address), length, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) !=
        0) {
        host.front() = '?';
    }
    peer = fmt::format("{}:{}", host.data(), port_of(address));
    (void)set_option(connection.get(), SOL_SOCKET, SO_KEEPALIVE, 1);
    (void)set_option(connection.get(), IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdleSeconds);
    (void)set_option(connection.get(), IPPROTO_TCP, TCP_KEEPINTVL, kKeepIntervalSeconds);
    (void)set_option(connection.get(), IPPROTO_TCP, TCP_KEEPCNT, kKeepCount);
    return Accepted::kConnection;
}

void write_port_file(const std::filesystem::path& path, int port) {
    std::filesystem::path temporary = path;
    temporary += ".new";
    // A file of its own that takes the name's place: neither what stands there nor a link is written through.
    (void)::unlink(temporary.c_str());
    const UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const std::string text = fmt::format("{}\n", port);
    if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        throw Error(Errc::kIo, fmt::format("cannot write the port file {} {}: give a writable path",
                                           escaped(path.native()), system_text()));
    }
}

} // namespace kvr
