// SPDX-License-Identifier: MIT
// The time by which a sender is judged: it passes only while the listener reads the connection. Whatever holds reading
// back (a full store, an older line of the same sender, short memory) stops it, so no limit runs against a sender for
// what is not its doing.
#pragma once

#include <chrono>

namespace kvr {

class ReadingTime {
  public:
    using Clock = std::chrono::steady_clock;

    /// From now on the connection is read, or not.
    void run(bool read, Clock::time_point now) {
        if (read != running_) {
            passed_ = at(now);
            since_ = now;
            running_ = read;
        }
    }
    [[nodiscard]] Clock::duration at(Clock::time_point now) const {
        return running_ ? passed_ + (now - since_) : passed_;
    }
    /// When it will be so late, should nothing stop it.
    [[nodiscard]] Clock::time_point when(Clock::duration time) const {
        return running_ ? since_ + (time - passed_) : Clock::time_point::max();
    }

  private:
    bool running_ = false;
    Clock::time_point since_;
    Clock::duration passed_{};
};

} // namespace kvr
