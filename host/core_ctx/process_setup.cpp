// SPDX-License-Identifier: MIT
#include "core_ctx/process_setup.h"

#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvr {
namespace {

void open_standard_descriptors() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR); // these three stay open across exec
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

bool is_ignored(int signal) {
    struct sigaction action {};
    return sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
           action.sa_handler == SIG_IGN;
}

void reset_signals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        // A process that ignores SIGCHLD cannot wait for its children, to name one inheritance that would hurt.
        if (signal != SIGINT && is_ignored(signal)) {
            std::signal(signal, SIG_DFL);
        }
    }
    // Until the plug-in has its handlers these would end the process; SIGUSR1 has no meaning here.
    for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2, SIGALRM}) {
        std::signal(signal, SIG_IGN);
    }
    alarm(0);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGHUP);
    sigprocmask(SIG_SETMASK, &held, nullptr);
}

} // namespace

void set_up_process() {
    open_standard_descriptors();
    reset_signals();
    umask(077);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
}

} // namespace kvr
