// SPDX-License-Identifier: MIT
// The stop flag and its hook. One thread runs the channel; the only other writer is a signal handler.
#include "kavutil/stop_point.h"

#include <csignal>

namespace {

/// Requests (20 a second, repeated by the worker's timer) after which a message that makes progress is given up: half a
/// second, which leaves as much again for the shutdown within the second that a stop may take.
constexpr int kOverdueRequests = 10;

volatile std::sig_atomic_t g_requests = 0;
kvr::StopHook g_hook = nullptr;
sigset_t g_main_mask;

} // namespace

namespace kvr {

bool stop_pending() {
    return g_requests != 0;
}

bool stop_overdue() {
    return g_requests >= kOverdueRequests;
}

void stop_request() {
    if (g_requests < kOverdueRequests) {
        g_requests = g_requests + 1;
    }
}

void stop_set_hook(StopHook hook) {
    pthread_sigmask(SIG_SETMASK, nullptr, &g_main_mask);
    g_hook = hook;
}

bool in_signal_handler() {
    sigset_t now;
    if (g_hook == nullptr || pthread_sigmask(SIG_SETMASK, nullptr, &now) != 0) {
        return false;
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&now, signal) == 1 && sigismember(&g_main_mask, signal) == 0) {
            return true;
        }
    }
    return false;
}

void stop_point(StopPlace place) {
    if (g_requests == 0 || g_hook == nullptr) {
        return;
    }
    const StopHook hook = g_hook;
    g_hook = nullptr; // the shutdown's own calls pass through here again
    hook(place);
}

} // namespace kvr
