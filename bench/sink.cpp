// SPDX-License-Identifier: MIT
#include "sink.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "message.h"

namespace kvr::bench {

namespace {

constexpr std::size_t kReadSize = 4UL << 20;
constexpr int kTimeoutMs = 60000;
constexpr char kFirst = 'F';
constexpr char kLast = 'L';

} // namespace

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

double cpu_seconds(pid_t pid) {
    clockid_t clock{};
    timespec used{};
    if (pid <= 0 || clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        return 0;
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

struct Sink::Shared {
    std::atomic<pid_t> sender;
    std::atomic<double> first_cpu;
    std::atomic<double> last_cpu;
    std::atomic<std::uint64_t> target;
    std::atomic<std::uint64_t> message_bytes;
    std::atomic<std::int64_t> first;
    std::atomic<std::int64_t> last;
    std::array<std::atomic<std::int64_t>, kArrivals> arrivals;
};

Sink::Sink() {
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    sockaddr* any = reinterpret_cast<sockaddr*>(&address);
    if (memory == MAP_FAILED || pipe(events_) != 0 || bind(listener, any, length) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, any, &length) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot start the sink");
    }
    shared_ = new (memory) Shared();
    port_ = ntohs(address.sin_port);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        serve(listener);
    }
    close(listener);
}

Sink::~Sink() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(events_[0]);
    close(events_[1]);
    munmap(shared_, sizeof(Shared));
}

void Sink::serve(int listener) {
    for (;;) {
        const int sock = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (sock >= 0) {
            read_connection(sock);
            close(sock);
        }
    }
}

void Sink::read_connection(int sock) {
    static std::array<char, kReadSize> buffer;
    const std::uint64_t bind_bytes = bind_frame().size();
    std::uint64_t total = 0;
    std::uint64_t signalled = 0;
    std::uint64_t arrived = 0;
    const auto signal = [this](char event) { return write(events_[1], &event, 1) == 1; };
    for (;;) {
        // MSG_TRUNC throws the bytes away inside the kernel: the sink must not be what is measured.
        const ssize_t got = recv(sock, buffer.data(), buffer.size(), MSG_TRUNC);
        if (got <= 0) {
            return;
        }
        const bool had_data = total > bind_bytes;
        total += static_cast<std::uint64_t>(got);
        if (total <= bind_bytes) {
            continue;
        }
        const std::uint64_t data = total - bind_bytes;
        if (!had_data) {
            shared_->first = now_ns();
            shared_->first_cpu = cpu_seconds(shared_->sender);
            signal(kFirst);
        }
        const std::uint64_t message_bytes = shared_->message_bytes;
        if (message_bytes > 0) {
            const std::int64_t now = now_ns();
            for (; (arrived + 1) * message_bytes <= data && arrived < kArrivals; ++arrived) {
                shared_->arrivals[arrived] = now;
            }
        }
        const std::uint64_t target = shared_->target;
        if (data >= target && signalled != target) {
            shared_->last = now_ns();
            shared_->last_cpu = cpu_seconds(shared_->sender);
            signalled = target;
            signal(kLast);
        }
    }
}

void Sink::expect(std::uint64_t bytes, std::uint64_t message_bytes) {
    shared_->message_bytes = message_bytes;
    shared_->target = bytes;
}

void Sink::watch(pid_t sender) {
    shared_->sender = sender;
}

double Sink::cpu() const {
    return shared_->last_cpu - shared_->first_cpu;
}

void Sink::wait_event(char event) {
    pollfd entry{events_[0], POLLIN, 0};
    char got = 0;
    if (poll(&entry, 1, kTimeoutMs) != 1 || read(events_[0], &got, 1) != 1 || got != event) {
        throw std::runtime_error(fmt::format("the sink waited in vain for the {} byte of {}",
                                             event == kFirst ? "first" : "last", shared_->target.load()));
    }
}

void Sink::wait_first() {
    wait_event(kFirst);
}

void Sink::wait_last() {
    wait_event(kLast);
}

std::int64_t Sink::first_ns() const {
    return shared_->first;
}

std::int64_t Sink::last_ns() const {
    return shared_->last;
}

std::int64_t Sink::arrival_ns(std::uint64_t index) const {
    return shared_->arrivals.at(index);
}

} // namespace kvr::bench
