// SPDX-License-Identifier: MIT
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "senders.h"

namespace kvr::bench {

namespace {

constexpr unsigned kAlarmSeconds = 60;
constexpr std::size_t kChunk = 10240;
constexpr int kGentleTries = 500;
constexpr useconds_t kGentleWait = 10000;

[[noreturn]] void give_up(const char* what) {
    fmt::print(stderr, "bare sender: {}: {}\n", what, std::strerror(errno));
    _exit(EXIT_FAILURE);
}

void set_option(int sock, int option, int value) {
    setsockopt(sock, IPPROTO_TCP, option, &value, sizeof(value));
}

void write_all(int sock, const void* data, std::size_t length) {
    const char* next = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t sent = send(sock, next, length, MSG_NOSIGNAL);
        if (sent < 0) {
            give_up("send");
        }
        next += sent;
        length -= static_cast<std::size_t>(sent);
    }
}

void write_file(int sock, const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        give_up(path.c_str());
    }
    const std::string digits = fmt::format("{:08}", std::filesystem::file_size(path));
    write_all(sock, digits.data(), digits.size());
    std::array<char, kChunk> chunk;
    ssize_t got = 0;
    while ((got = read(file, chunk.data(), chunk.size())) > 0) {
        write_all(sock, chunk.data(), static_cast<std::size_t>(got));
    }
    close(file);
}

int connect_to(std::uint16_t port) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sock < 0 || connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        give_up("connect");
    }
    return sock;
}

} // namespace

pid_t spawn(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("cannot fork a sender");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(EXIT_FAILURE);
    }
    return pid;
}

void end_process(pid_t pid, bool gently) {
    if (gently) {
        kill(pid, SIGTERM);
        for (int i = 0; i < kGentleTries; ++i) {
            if (waitpid(pid, nullptr, WNOHANG) == pid) {
                return;
            }
            usleep(kGentleWait);
        }
        fmt::print(stderr, "process {} did not stop, killed\n", pid);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

void run_bare_sender(const Message& message, Feed feed, std::uint16_t port) {
    signal(SIGALRM, SIG_IGN);
    const Frame frame(message);
    const char* body = message.data.data() + sizeof(T_KAVRO_HDR_XMITQ);
    const int sock = connect_to(port);
    set_option(sock, TCP_NODELAY, 1);
    const std::string bind = bind_frame();
    write_all(sock, bind.data(), bind.size());
    for (;;) {
        alarm(kAlarmSeconds);
        const bool due = feed.next();
        alarm(0);
        if (!due) {
            continue;
        }
        pollfd entry{sock, POLLIN, 0};
        if (poll(&entry, 1, 0) != 0) {
            give_up("the sink closed the line");
        }
        set_option(sock, TCP_CORK, 1);
        write_all(sock, &frame.header, sizeof(frame.header));
        write_all(sock, &frame.descriptor, sizeof(frame.descriptor));
        write_all(sock, body, message.body_size());
        write_all(sock, frame.attachments.data(), frame.attachments.size());
        for (const std::string& file : message.files) {
            write_file(sock, file);
        }
        set_option(sock, TCP_CORK, 0);
    }
}

void send_series(const Message& message, std::uint64_t count, std::uint64_t series, std::uint64_t last,
                 std::uint16_t port) {
    constexpr std::size_t kBatch = 256UL << 10;
    const Frame frame(message);
    std::string bytes = bind_frame();
    const int sock = connect_to(port);
    for (std::uint64_t i = 0; i <= count; ++i) {
        T_KAVRO_CHL_MD block = frame.descriptor;
        const std::string id = i < count ? fmt::format("{}.{}", series, i) : fmt::format("last {}", last);
        std::memcpy(block.sMsgId, id.data(), std::min(id.size(), sizeof block.sMsgId));
        bytes.append(reinterpret_cast<const char*>(&frame.header), sizeof frame.header);
        bytes.append(reinterpret_cast<const char*>(&block), sizeof block);
        bytes.append(message.data.data() + sizeof(T_KAVRO_HDR_XMITQ), message.body_size());
        if (bytes.size() >= kBatch || i == count) {
            write_all(sock, bytes.data(), bytes.size());
            bytes.clear();
        }
    }
    for (;;) {
        pause();
    }
}

} // namespace kvr::bench
