// SPDX-License-Identifier: MIT
// Whether an operation runs in a signal handler (contracts in net_tcp_private.h).
#include <csignal>

#include "net_tcp_private.h"

static sigset_t f_tMainMask; ///< signals that the main flow holds

void MarkMainFlow() {
    pthread_sigmask(SIG_BLOCK, nullptr, &f_tMainMask);
}

static bool HasHandler(int iSig) {
    struct sigaction tAction {};
    return sigaction(iSig, nullptr, &tAction) == 0 && tAction.sa_handler != SIG_DFL && tAction.sa_handler != SIG_IGN;
}

int InHandler() {
    sigset_t tNow;
    pthread_sigmask(SIG_BLOCK, nullptr, &tNow);
    if (sigisemptyset(&tNow) != 0) {
        return 0;
    }
    for (int iSig = 1; iSig < NSIG; iSig++) {
        if (sigismember(&tNow, iSig) == 1 && sigismember(&f_tMainMask, iSig) == 0 && HasHandler(iSig)) {
            return 1;
        }
    }
    return 0;
}
