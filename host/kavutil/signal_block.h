// SPDX-License-Identifier: MIT
// Signals that are held back until a system call that waits lets them in: one that comes a moment before the wait ends
// it as well, instead of being handled before it and forgotten.
#pragma once

#include <csignal>

namespace kvr {

/// Blocks signals from block() until destroyed, restore() apart. Synchronous ones (faults) stay deliverable.
class SignalBlock {
  public:
    SignalBlock() = default;
    ~SignalBlock() { restore(); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    void block() {
        if (blocked_) {
            return;
        }
        sigset_t set;
        sigfillset(&set);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
            sigdelset(&set, fault);
        }
        pthread_sigmask(SIG_BLOCK, &set, &original_);
        blocked_ = true;
    }
    void restore() {
        if (blocked_) {
            blocked_ = false;
            pthread_sigmask(SIG_SETMASK, &original_, nullptr);
        }
    }
    /// The caller's mask; valid while blocked.
    [[nodiscard]] const sigset_t& original() const { return original_; }

  private:
    sigset_t original_{};
    bool blocked_ = false;
};

} // namespace kvr
