// SPDX-License-Identifier: MIT
// What the host knows of the channel's line, and makes of it: which messages are suspected when it was lost, when the
// next one is fed, and which failed message is given back instead of dead-lettered.
//
// The channel tells by its status: "RUNING", a line is up; "RETRYING", it makes a new one, the one before was lost;
// "STOPED", an end in order, unless the line was lost already and the stop came first (line_ends.h). A process that
// ends without that word leaves what it sent suspected to the next one.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kavro_api.h"
#include "kavro_queue/kavro_queue_host.h"
#include "kavro_queue/line_ends.h"
#include "kavro_queue/line_trial.h"
#include "store/store.h"

namespace kvr {

class LineWatch {
  public:
    /// Wait for a message; nothing: without end.
    using Longest = std::optional<std::chrono::milliseconds>;

    LineWatch() = default;
    explicit LineWatch(const LineSettings& settings) : settings_(settings), trial_(settings.trial) {}

    void retrying();
    void binding() { state_ = State::kBinding; }
    void running(const LineEnds& ends);
    void stopped();

    std::unique_ptr<Getter> drain(Store& store, const std::string& queue);
    /// The get: the next message, once the line is to be fed. -1 when a signal ended the wait, or none came in time.
    std::int64_t next(Getter& getter, T_KAVRO_MD& descriptor, std::span<char> buffer, Longest longest);
    /// The end of the drain: uses up what is in hand.
    void close(Getter& getter);

    /// For the message in hand, which the channel failed to send and is about to put on the dead-letter queue: whether
    /// it is not to be put there. It was given back then, or the next get uses it up.
    bool spares(const T_KAVRO_MD& descriptor, std::span<const char> data);
    /// The same where there is no dead-letter queue, for a message without files.
    bool spares_without_files();

  private:
    using Clock = LineTrial::Clock;
    enum class State { kNone, kRetrying, kBinding, kUp, kStopped };

    [[nodiscard]] bool keeps() const { return settings_.drain.keeps(); }
    /// Tells the getter of the loss. Throws; `loss_due_` stands then.
    void lose(Getter& getter, const char* where);
    void try_to_lose();
    void lose_before(Getter& getter);
    void tell(const Loss& loss, const std::string& when, const char* where) const;
    std::int64_t take(Getter& getter, T_KAVRO_MD& descriptor, std::span<char> buffer, Longest longest);
    bool wait_for_line(Getter& getter);
    void note_repeat(const Getter& getter);
    void tell_repeats();
    bool give_back(Getter& getter);

    LineSettings settings_;
    LineTrial trial_;
    State state_ = State::kNone;
    LineEnds ends_;
    Clock::time_point up_since_;
    bool stands_at_stop_ = false;
    bool loss_due_ = false;                        ///< the getter is to be told of a loss
    std::optional<Clock::time_point> interrupted_; ///< the last get, by a signal
    std::uint64_t losses_ = 0;
    std::uint64_t losses_before_hand_ = 0; ///< when the message in hand was handed out
    bool hand_has_files_ = false;
    std::string hand_;    ///< id of the message that was handed out last
    std::string failing_; ///< of the one that was given back last, until it is sent; empty: none
    Clock::time_point failing_since_;
    int times_given_back_ = 0;
    std::uint64_t repeats_ = 0; ///< handed out since the last line about them
};

/// The process's.
LineWatch& line_watch();

} // namespace kvr
