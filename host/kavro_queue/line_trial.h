// SPDX-License-Identifier: MIT
// When a line is fed. A peer that accepts and closes would take message after message into nothing: after a loss the
// next line has to last a while first, and longer after each line that did not.
#pragma once

#include <chrono>
#include <csignal>

namespace kvr {

class LineTrial {
  public:
    using Clock = std::chrono::steady_clock;

    LineTrial() = default;
    /// @param longest  that a line has to last; 0: none has to
    explicit LineTrial(Clock::duration longest) : longest_(longest) {}

    [[nodiscard]] bool off() const { return longest_ == Clock::duration::zero(); }
    void line_up();
    /// @param lasted  what the line did, from its line_up
    void line_lost(Clock::duration lasted);
    /// Nothing is fed before this time is over: the line is known to be down, and its loss will be told.
    void hold_off(Clock::duration time);

    /// Whether a wait is due. Cheap.
    [[nodiscard]] bool is_on() const { return on_; }
    /// Waits with this signal mask until the line has lasted; false when a signal ended the wait. Meanwhile, each
    /// second, the log looks after its file.
    bool wait(const sigset_t& mask);
    /// The same within the caller's mask, for the main flow with a message in hand; ends with the report that the line
    /// is lost, SIGUSR2, which the caller holds and gets afterwards, or after two seconds: wait() has the rest. A stop
    /// ends it, too.
    void wait_in_message();

  private:
    /// What is left, a second at most; nothing when the line has lasted.
    timespec next_wait();

    Clock::duration longest_{};
    Clock::duration need_{}; ///< that the next line has to last
    Clock::time_point fed_from_;
    bool on_ = false;
};

} // namespace kvr
