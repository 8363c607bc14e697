// SPDX-License-Identifier: MIT
#include "core_ctx/stop_signal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>

#include "kavutil/error.h"
#include "kavutil/stop_point.h"

namespace kvr {
namespace {

constexpr long kRepeatNs = 50'000'000;
constexpr int kStopSignals[] = {SIGTERM, SIGINT};

timer_t g_repeat;

// Calls stop_request, timer_settime: both safe in a handler. In a forked child the timer does not exist and the call
// fails, which is fine.
void on_stop_signal(int /*signal*/) {
    const int saved = errno;
    if (!stop_pending()) {
        const itimerspec every{{0, kRepeatNs}, {0, kRepeatNs}};
        timer_settime(g_repeat, 0, &every, nullptr);
    }
    stop_request();
    errno = saved;
}

} // namespace

void watch_stop_signals() {
    struct sigevent event {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGTERM;
    if (timer_create(CLOCK_MONOTONIC, &event, &g_repeat) != 0) {
        throw Error(Errc::kIo, std::string("no timer for an orderly stop: ") + std::strerror(errno));
    }
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    // No SA_RESTART: what blocks has to return. Both are held while one is handled.
    for (const int signal : kStopSignals) {
        sigaddset(&action.sa_mask, signal);
    }
    for (const int signal : kStopSignals) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before);
        if (signal == SIGTERM || before.sa_handler != SIG_IGN) {
            sigaction(signal, &action, nullptr);
        }
    }
}

void ignore_stop_signals() {
    for (const int signal : kStopSignals) {
        std::signal(signal, SIG_IGN);
    }
    const itimerspec never{};
    timer_settime(g_repeat, 0, &never, nullptr);
}

} // namespace kvr
