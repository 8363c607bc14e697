// SPDX-License-Identifier: MIT
// The receiver of every measurement: a process that takes one connection after the other, reads and throws away, and
// notes when the bytes arrived. It is the same for all senders, so that their figures differ by the senders alone.
#pragma once

#include <cstdint>
#include <vector>

#include <sys/types.h>

namespace kvr::bench {

class Sink {
  public:
    /// Starts the process. It ends with its creator.
    Sink();
    ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    [[nodiscard]] std::uint16_t port() const { return port_; }

    /// Tells what comes next: `bytes` on a connection after its bind frame. With `message_bytes` above 0 the arrival of
    /// every message of that length is noted.
    void expect(std::uint64_t bytes, std::uint64_t message_bytes = 0);
    /// Whose CPU time is to be noted together with the first and the last byte.
    void watch(pid_t sender);
    /// Waits for the first byte after the bind frame, and for the last one. Throws when nothing comes for a minute.
    void wait_first();
    void wait_last();
    /// When they arrived: nanoseconds of the monotonic clock.
    [[nodiscard]] std::int64_t first_ns() const;
    [[nodiscard]] std::int64_t last_ns() const;
    /// CPU time of the watched process between them, in seconds.
    [[nodiscard]] double cpu() const;
    /// When message `index` of the connection was complete.
    [[nodiscard]] std::int64_t arrival_ns(std::uint64_t index) const;

    /// Messages whose arrival can be noted on one connection.
    static constexpr std::size_t kArrivals = 65536;

  private:
    struct Shared;

    [[noreturn]] void serve(int listener);
    void read_connection(int sock);
    void wait_event(char event);

    Shared* shared_;
    int events_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

/// Nanoseconds of the monotonic clock.
std::int64_t now_ns();
/// CPU time of a process so far, in seconds.
double cpu_seconds(pid_t pid);

} // namespace kvr::bench
