// SPDX-License-Identifier: MIT
#include "kavro_queue/line_trial.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/signalfd.h>

#include "kavro_log/log.h"
#include "kavutil/stop_point.h"
#include "kavutil/unique_fd.h"

namespace kvr {

namespace {

using namespace std::chrono_literals;

constexpr LineTrial::Clock::duration kFirst = 100ms;
/// A line that lived longer than it had to, by this, did not end because it was fed. A loss can be noticed by the
/// channel's alarm of a second only.
constexpr LineTrial::Clock::duration kLasting = 2s;

bool is_zero(const timespec& time) {
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

} // namespace

void LineTrial::line_up() {
    on_ = need_ > Clock::duration::zero();
    fed_from_ = Clock::now() + need_;
}

void LineTrial::line_lost(Clock::duration lasted) {
    need_ = std::min(lasted < need_ + kLasting ? std::max(2 * need_, kFirst) : kFirst, longest_);
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
    const UniqueFd reported(::signalfd(-1, &report, SFD_CLOEXEC | SFD_NONBLOCK)); // without it the wait is only longer
    for (timespec time = next_wait(); !is_zero(time); time = next_wait()) {
        pollfd entry{.fd = reported.get(), .events = POLLIN, .revents = 0};
        if (::ppoll(&entry, 1, &time, nullptr) > 0) {
            return;
        }
        log_look();
        stop_point(StopPlace::kMidMessage);
    }
}

} // namespace kvr
