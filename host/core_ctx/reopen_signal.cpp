// SPDX-License-Identifier: MIT
#include "reopen_signal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <pthread.h>

#include "error.h"
#include "kavro_log.h"
#include "log.h"

namespace kvr {
namespace {

constexpr int kLevelFailure = 1;
constexpr int kLevelEvent = 3;

void log_line(int level, const std::string& text, int line = __builtin_LINE()) {
    KVR_LogPrint(nullptr, level, const_cast<char*>("$core_ctx"), const_cast<char*>("reopen_signal"), line,
                 "watch_reopen_signal", const_cast<char*>("%s"), text.c_str());
}

void* reopen_at_each(void* /*unused*/) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGHUP);
    for (int signal = 0; sigwait(&awaited, &signal) == 0;) {
        const int opened = log_reopen();
        if (opened > 0) {
            log_line(kLevelEvent, "log reopened");
        } else if (opened < 0) {
            log_line(kLevelFailure, std::string("the log cannot be reopened (") + std::strerror(errno) +
                                        "): its lines still go to the file that was open");
        }
    }
    return nullptr;
}

} // namespace

void watch_reopen_signal() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // the thread inherits it
    pthread_t thread{};
    const int failed = pthread_create(&thread, nullptr, reopen_at_each, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failed != 0) {
        throw Error(Errc::kIo, std::string("no thread to reopen the log on SIGHUP: ") + std::strerror(failed));
    }
    pthread_detach(thread);
}

} // namespace kvr
