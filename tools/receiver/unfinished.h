// SPDX-License-Identifier: MIT
// Unfinished messages keep memory and, with files, room in the spool. When either is short, those go of which nothing
// comes: less than kFloor was read in the time of the trial, and nothing waits unread. Of them the one that keeps most
// goes first, and none that keeps less than half of what the greatest does: its end would help nobody. A sender that is
// held back is never among them: what it sends waits unread. Those that wait for room themselves are judged, in the
// same way, when nobody else goes.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace kvr {

/// One connection in mid-message.
struct Unfinished {
    std::uint64_t id = 0;
    std::uint64_t kept = 0; ///< of what is short
    std::uint64_t read = 0; ///< bytes since the connection began
    std::size_t unread = 0; ///< bytes that wait to be read
    bool waits = false;     ///< for room itself
};

class UnfinishedTrial {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kFloor = 32U << 10U; ///< in 2 seconds 16 KiB/s; a channel is usable from there on

    explicit UnfinishedTrial(Clock::duration time) : time_(time) {}
    /// Called while something is short.
    /// @return ids of those that go: the greatest keepers without progress, until `excess` bytes are free
    std::vector<std::uint64_t> judge(std::span<const Unfinished> all, std::uint64_t excess, Clock::time_point now);
    /// Nothing is short, or nothing is read: the next trial begins anew.
    void stop();
    /// When judge() has to be called; max when no trial is on.
    [[nodiscard]] Clock::time_point due() const { return due_; }

  private:
    [[nodiscard]] std::vector<Unfinished> idle_of(std::span<const Unfinished> all, bool waits) const;

    Clock::duration time_;
    Clock::time_point due_ = Clock::time_point::max();
    std::unordered_map<std::uint64_t, Unfinished> before_;
};

} // namespace kvr
