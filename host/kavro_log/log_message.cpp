// SPDX-License-Identifier: MIT
#include "kavro_log/log_message.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <pthread.h>

namespace kvr {

namespace {

char g_id[kMessageIdSize];
volatile std::sig_atomic_t g_shown = 0;
bool g_registered = false;

void forget() {
    g_shown = 0;
}

} // namespace

void log_set_message(const char* id) {
    g_shown = 0;
    if (id == nullptr || id[0] == '\0') {
        return;
    }
    if (!g_registered) {
        g_registered = pthread_atfork(nullptr, nullptr, forget) == 0; // a child has no message in hand
    }
    std::atomic_signal_fence(std::memory_order_seq_cst); // a handler must see no half of it
    std::memcpy(g_id, id, sizeof g_id);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    g_shown = 1;
}

const char* log_message() {
    return g_shown != 0 ? g_id : nullptr;
}

} // namespace kvr
