// SPDX-License-Identifier: MIT
#include "store/waits.h"

#include <algorithm>
#include <atomic>
#include <csignal>

#include "kavutil/stop_point.h"
#include "store/store.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// All waits of a process together after it was asked to stop: the rest of the second is for its shutdown.
constexpr milliseconds kStopBudget{500};
/// Each of them after that all the same: as long as a commit of somebody else usually lasts.
constexpr milliseconds kLeastWait{50};

std::atomic<Notice> g_notice{nullptr};
std::atomic<void (*)()> g_idle_look{nullptr};
std::atomic<milliseconds> g_limit{kNoLimit};
std::atomic<Clock::rep> g_stop_end{0}; ///< end of kStopBudget, 0 before a wait saw the stop

/// A stop that the process holds back counts too: it waits here instead of taking it.
bool stop_asked() {
    sigset_t held;
    return stop_pending() ||
           (::sigpending(&held) == 0 && (sigismember(&held, SIGTERM) == 1 || sigismember(&held, SIGINT) == 1));
}

} // namespace

void set_notice(Notice notice) {
    g_notice = notice;
}

void set_idle_look(void (*look)()) {
    g_idle_look = look;
}

void limit_waits(milliseconds limit) {
    g_limit = limit;
}

void tell(const std::string& line) {
    if (const Notice notice = g_notice) {
        notice(line);
    }
}

void look_while_idle() {
    if (void (*const look)() = g_idle_look) {
        look();
    }
}

bool wait_is_over(Clock::duration waited, milliseconds limit) {
    if (waited >= std::min<Clock::duration>(limit, g_limit.load())) {
        return true;
    }
    // Once seen it counts for good: who holds the signal back may take it before the next wait.
    if (g_stop_end == 0 && !stop_asked()) {
        return false;
    }
    const Clock::rep now = Clock::now().time_since_epoch().count();
    Clock::rep unset = 0;
    g_stop_end.compare_exchange_strong(unset, now + Clock::duration(kStopBudget).count());
    return now >= g_stop_end && waited >= kLeastWait;
}

} // namespace kvr
