// SPDX-License-Identifier: MIT
// Log lines of the listener: standard error, one write per line, with the time. Callers pass text from outside through
// `escaped`.
//
// A log line never holds the listener up: what standard error does not take at once is dropped, and the next line says
// how many were. And no peer fills the log: of the lines that peers can cause one is written per cause, peer and
// kLogInterval, the others are counted.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace kvr {

constexpr std::chrono::seconds kLogInterval{10};

void listen_log(std::string_view text);
/// As that, marked as a warning where the journal reads it.
void listen_warning(std::string_view text);
/// A line that a peer caused.
/// @param cause  of a small set: what happened, as the count will name it; empty: always written
/// @param peer   its address without the port
void listen_log(std::string_view text, std::string_view cause, std::string_view peer);
/// Writes the counts whose interval is over, or all. Returns when it has to be called again.
std::chrono::steady_clock::time_point log_counts(bool all = false);
/// Time in UTC with milliseconds, as the log and the journal write it.
std::string time_text();

/// Which of the lines that peers cause are written.
class RepeatedLines {
  public:
    using Clock = std::chrono::steady_clock;
    /// Peers and causes that are told apart; the lines of further ones share a count.
    static constexpr std::size_t kMaxKeys = 256;

    /// False: it is counted instead.
    bool admit(std::string_view cause, std::string_view peer, Clock::time_point now);
    /// Ends an interval that is over, or any: the line that tells its count, empty when nothing was left out. Nothing
    /// to end: false.
    bool end_interval(Clock::time_point now, std::string& line);
    /// When the next interval ends of which something was left out.
    [[nodiscard]] Clock::time_point due() const;

  private:
    struct Interval {
        Clock::time_point end;
        std::uint64_t left_out = 0;
    };
    std::map<std::pair<std::string, std::string>, Interval> intervals_;
};

} // namespace kvr
