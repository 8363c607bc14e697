// SPDX-License-Identifier: MIT
// For commands that end in order on a signal: one that comes before they can is kept for them.
#pragma once

#include <csignal>
#include <initializer_list>

namespace kvr {

/// Who handles the signals lets them through again, or reads them as they are.
inline void hold_signals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    (void)::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

} // namespace kvr
