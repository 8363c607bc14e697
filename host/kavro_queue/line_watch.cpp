// SPDX-License-Identifier: MIT
#include "kavro_queue/line_watch.h"

#include <exception>
#include <utility>

#include "kavro_log.h"
#include "kavro_log/log_message.h"
#include "kavro_queue/message_files.h"
#include "kavro_queue/open_queues.h"
#include "kavutil/signal_block.h"
#include "kavutil/stop_point.h"
#include "store/c_border.h"

namespace kvr {

namespace {

using namespace std::chrono_literals;

constexpr BorderModule kWatch{"$kavro_queue", "line_watch"};
constexpr int kLevelFailure = 1;
constexpr int kLevelEvent = 3;
constexpr int kLevelInfo = 4;

/// A message that fails for longer than this, and after it was given back so often, is to blame itself.
constexpr auto kPatience = 30s;
constexpr int kTimes = 3;
/// On a line that it knows to be down the channel interrupts the get within a second or two. Where no report of the
/// loss came, nothing does.
constexpr auto kReportTime = 3s;

void log_line(int level, const std::string& text, const char* function = __builtin_FUNCTION(),
              int line = __builtin_LINE()) {
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, level, const_cast<char*>(kWatch.module), const_cast<char*>(kWatch.file), line, function,
                 const_cast<char*>("%s"), text.c_str());
}

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

LineWatch& the_watch() {
    static auto* watch = new LineWatch; // never destroyed, as the queues that are open
    return *watch;
}

} // namespace

LineWatch& line_watch() {
    return the_watch();
}

void line_settings(const LineSettings& settings) {
    the_watch() = LineWatch(settings);
}

void line_status(const Attributes& status) {
    const auto text = [&](const char* attr) {
        const auto found = status.find(attr);
        return found == status.end() ? std::string() : found->second;
    };
    const std::string word = text("STATUS");
    if (word == "RETRYING") {
        the_watch().retrying();
    } else if (word == "BINDING") {
        the_watch().binding();
    } else if (word == "RUNING") {
        the_watch().running({text("LOCALIP"), text("LOCALPORT"), text("REMOTEIP"), text("REMOTEPORT")});
    } else if (word == "STOPED") {
        the_watch().stopped();
    }
}

// ---- The words

void LineWatch::retrying() {
    if (state_ == State::kUp || state_ == State::kBinding) {
        ++losses_;
        trial_.line_lost(state_ == State::kUp ? interrupted_.value_or(Clock::now()) - up_since_ : 0s);
    }
    state_ = State::kRetrying;
    try_to_lose();
}

void LineWatch::running(const LineEnds& ends) {
    state_ = State::kUp;
    ends_ = ends;
    up_since_ = Clock::now();
    trial_.line_up();
    if (trial_.is_on() && queue_in_hand()) {
        trial_.wait_in_message();
    }
}

void LineWatch::stopped() {
    stands_at_stop_ = state_ == State::kUp && line_stands(ends_);
    state_ = State::kStopped;
}

// ---- Losses

void LineWatch::try_to_lose() {
    const std::shared_ptr<OpenQueue> queue = drained_queue();
    if (!queue || !keeps()) {
        return;
    }
    try {
        lose(*queue->getter, "now");
    } catch (const std::exception& error) {
        static_cast<void>(fail_at_border(kWatch, error, BorderPlace::here())); // the next get tries again
    }
}

void LineWatch::lose(Getter& getter, const char* where) {
    loss_due_ = true;
    const Loss loss = getter.line_lost();
    loss_due_ = false;
    if (loss.messages > 0) {
        repeats_ = 0;
    }
    tell(loss, "line lost", where);
}

/// @param where  where what is sent again is: "now", or with another start
void LineWatch::tell(const Loss& loss, const std::string& when, const char* where) const {
    if (loss.messages == 0 && !loss.cut_short) {
        return;
    }
    std::string text = "channel[" + settings_.channel + "] " + when + ": ";
    if (loss.messages == 0) {
        log_line(kLevelEvent, text +
                                  "messages can be gone that are not kept any more: KEEPINT and KEEPMAX say how long "
                                  "they are");
        return;
    }
    text += number(loss.messages) + (loss.messages == 1 ? " message of " : " messages of ") + number(loss.bytes) +
            " bytes can be gone, from place " + number(loss.first) + " to " + number(loss.last) +
            (loss.cut_short ? ", and older ones that are not kept any more" : "");
    log_line(kLevelEvent, text + (settings_.drain.repeat ? std::string("; they are sent again ") + where +
                                                               ", in their order, before all others"
                                                         : "; they are not sent again by themselves: 'kvr replay " +
                                                               settings_.channel + " --suspected' sends them"));
}

/// Before the message in hand is used up: that went over the new line. Where the disk has no room for it, the next get
/// tries again; the message then counts as one of the old line, too.
void LineWatch::lose_before(Getter& getter) {
    try {
        lose(getter, "now");
    } catch (const Error& error) {
        if (error.code() != Errc::kFull) {
            throw;
        }
    }
}

// ---- The get

std::unique_ptr<Getter> LineWatch::drain(Store& store, const std::string& queue) {
    std::unique_ptr<Getter> getter = store.drain(queue, settings_.drain);
    tell(getter->inherited_loss(), "its last process ended without a stop", "now");
    return getter;
}

std::int64_t LineWatch::next(Getter& getter, T_KAVRO_MD& descriptor, std::span<char> buffer, Longest longest) {
    interrupted_.reset();
    if (getter.in_hand() && hand_ == failing_) {
        failing_.clear(); // it was sent
    }
    if (loss_due_) {
        lose_before(getter);
    }
    const std::int64_t length = take(getter, descriptor, buffer, longest);
    if (length < 0) {
        interrupted_ = Clock::now();
        return length;
    }
    log_set_message(descriptor.sMsgId);
    hand_.assign(descriptor.sMsgId, sizeof descriptor.sMsgId);
    losses_before_hand_ = losses_;
    hand_has_files_ = has_files(descriptor);
    note_repeat(getter);
    return length;
}

std::int64_t LineWatch::take(Getter& getter, T_KAVRO_MD& descriptor, std::span<char> buffer, Longest longest) {
    if (trial_.is_on() && !wait_for_line(getter)) {
        return -1;
    }
    if (repeats_ > 0) {
        if (const std::int64_t length = getter.next(descriptor, buffer, false); length >= 0) {
            return length;
        }
        tell_repeats(); // before a wait that can be long
    }
    return getter.next(descriptor, buffer, longest);
}

/// The message in hand is used up first, as a get does it: it was sent.
bool LineWatch::wait_for_line(Getter& getter) {
    SignalBlock signals;
    signals.block();
    try {
        getter.commit();
    } catch (const Error& error) {
        if (error.code() != Errc::kFull || getter.in_hand()) {
            throw;
        }
        // It is used up; what was used is deleted once there is room.
    }
    if (trial_.wait(signals.original())) {
        return true;
    }
    signals.restore();
    stop_point(StopPlace::kBetweenMessages);
    return false;
}

void LineWatch::note_repeat(const Getter& getter) {
    if (getter.is_repeat()) {
        ++repeats_;
        log_line(kLevelInfo, "repeat[" + number(repeats_) + "]: this message was sent before");
    } else if (repeats_ > 0) {
        tell_repeats();
    }
}

void LineWatch::tell_repeats() {
    log_line(kLevelEvent,
             "channel[" + settings_.channel + "] " + number(std::exchange(repeats_, 0)) + " repeats are through");
}

void LineWatch::close(Getter& getter) {
    const bool stopped = keeps() && state_ == State::kStopped;
    if (stopped && stands_at_stop_ && !loss_due_) {
        getter.line_ended();
        return;
    }
    getter.commit();
    if (stopped) {
        lose(getter, "at the next start");
    }
}

// ---- Failed messages

bool LineWatch::spares(const T_KAVRO_MD& descriptor, std::span<const char> data) {
    const std::shared_ptr<OpenQueue> queue = queue_in_hand();
    if (!queue) {
        return false;
    }
    const std::optional<UnusableFile> file = unusable_file(descriptor, data);
    if (!file || (queue->getter->is_repeat() && !file->gone)) {
        return give_back(*queue->getter);
    }
    if (queue->getter->is_repeat()) {
        log_line(kLevelFailure, "a repeat is not sent: its file '" + file->path +
                                    "' is gone; the message was sent once and is no dead letter");
        return true;
    }
    return false;
}

bool LineWatch::spares_without_files() {
    const std::shared_ptr<OpenQueue> queue = queue_in_hand();
    return queue && !hand_has_files_ && give_back(*queue->getter);
}

/// Where it is the lines that do not last, and not the message that fails; a message that ends every line looks like
/// that as well, but not for ever.
bool LineWatch::give_back(Getter& getter) {
    if (trial_.off() || losses_ == losses_before_hand_ || state_ == State::kRetrying) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    if (failing_ != hand_) {
        failing_ = hand_;
        failing_since_ = now;
        times_given_back_ = 0;
    }
    if (times_given_back_ >= kTimes && now - failing_since_ >= kPatience) {
        return false;
    }
    ++times_given_back_;
    log_line(kLevelEvent, "channel[" + settings_.channel + "] given back to its queue: " +
                              number(losses_ - losses_before_hand_ + 1) + " lines did not last for this message");
    if (getter.is_repeat() && repeats_ > 0) {
        --repeats_; // it comes again
    }
    getter.rollback();
    trial_.hold_off(kReportTime);
    return true;
}

} // namespace kvr
