// SPDX-License-Identifier: MIT
#include "kavro_queue/line_trial.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/signalfd.h>
#include <utility>

#include "kavro_log/log.h"
#include "kavutil/stop_point.h"
#include "kavutil/unique_fd.h"

namespace kvr {

namespace {

using namespace std::chrono_literals;

constexpr LineTrial::Clock::duration kFirst = 100ms;
/// A line that lived for so long did not end because it was fed: longer than what stands between two ends without
/// anybody behind it holds a connection.
constexpr LineTrial::Clock::duration kLasting = 30s;
/// Longest wait with a message in hand: no heartbeat leaves meanwhile.
constexpr LineTrial::Clock::duration kLongestInMessage = 2s;

bool is_zero(const timespec& time) {
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

} // namespace

void LineTrial::line_up() {
    on_ = need_ > Clock::duration::zero();
    fed_from_ = Clock::now() + need_;
}

void LineTrial::line_lost(Clock::duration lasted) {
    need_ = std::min(lasted < kLasting ? std::max(2 * need_, kFirst) : kFirst, longest_);
}

void LineTrial::hold_off(Clock::duration time) {
    on_ = true;
    fed_from_ = Clock::now() + time;
}

timespec LineTrial::next_wait() {
    const Clock::duration left = std::clamp<Clock::duration>(fed_from_ - Clock::now(), 0s, 1s);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    on_ = left > 0s;
    return {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
}

bool LineTrial::wait(const sigset_t& mask) {
    for (timespec time = next_wait(); !is_zero(time); time = next_wait()) {
        const bool interrupted = ::ppoll(nullptr, 0, &time, &mask) < 0;
        log_look();
        if (interrupted) {
            return false;
        }
    }
    return true;
}

void LineTrial::wait_in_message() {
    sigset_t report;
    sigemptyset(&report);
    sigaddset(&report, SIGUSR2);
    const Clock::time_point fed_from = std::exchange(fed_from_, std::min(fed_from_, Clock::now() + kLongestInMessage));
    const UniqueFd reported(::signalfd(-1, &report, SFD_CLOEXEC | SFD_NONBLOCK)); // without it the wait is only longer
    for (timespec time = next_wait(); !is_zero(time); time = next_wait()) {
        pollfd entry{.fd = reported.get(), .events = POLLIN, .revents = 0};
        if (::ppoll(&entry, 1, &time, nullptr) > 0) {
            break;
        }
        log_look();
        stop_point(StopPlace::kMidMessage);
    }
    fed_from_ = fed_from;
    on_ = true; // the get has the rest
}

} // namespace kvr
