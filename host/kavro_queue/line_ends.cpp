// SPDX-License-Identifier: MIT
#include "kavro_queue/line_ends.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kvr {

namespace {

using NameOf = int (*)(int, sockaddr*, socklen_t*);

/// Address and port of one end; empty when there is none.
std::pair<std::string, std::string> end_of(int fd, NameOf name_of) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    char text[INET_ADDRSTRLEN] = "";
    if (name_of(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sin_family != AF_INET ||
        ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) {
        return {};
    }
    return {text, std::to_string(ntohs(address.sin_port))};
}

/// On a network that fell silent a line is up for a quarter of an hour; that nobody acknowledges shows at once.
bool is_answered(int fd) {
    tcp_info info{};
    socklen_t length = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_ESTABLISHED &&
           info.tcpi_retransmits == 0;
}

} // namespace

bool line_stands(const LineEnds& ends) {
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", failed)) {
        const int fd = std::atoi(entry.path().filename().c_str());
        const auto [local_ip, local_port] = end_of(fd, ::getsockname);
        const auto [remote_ip, remote_port] = end_of(fd, ::getpeername);
        if (LineEnds{local_ip, local_port, remote_ip, remote_port} == ends) {
            return is_answered(fd);
        }
    }
    return false;
}

} // namespace kvr
