// SPDX-License-Identifier: MIT
// How the drainer of an empty queue waits: on a named FIFO into which a put writes a byte. Signals are blocked from the
// moment it knows that the queue may be empty, and let in only within the wait itself, by the system call that waits:
// one that came a moment earlier ends the wait as well, instead of being handled before it and forgotten.
#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>

#include "kavutil/signal_block.h"
#include "kavutil/unique_fd.h"

namespace kvr {

class WakeFifo {
  public:
    /// Opens the FIFO for waiting; makes it when it is missing.
    explicit WakeFifo(const std::filesystem::path& path);

    enum class Woken { kLook, kSignal, kInterrupt };
    /// The queue is looked at again so often, for a putter may have been killed between its commit and its wake-up.
    static constexpr std::chrono::milliseconds kLook{1000};
    /// Waits with the given signal mask for a wake-up, or for a time; kLook then.
    /// @param interrupt  descriptor that ends the wait, too, when it can be read; -1: none
    Woken wait(const sigset_t& mask, std::chrono::milliseconds time = kLook, int interrupt = -1);

    static void create(const std::filesystem::path& path);
    /// Wakes whoever waits. Never fails: who is not woken looks again by himself.
    static void wake(const std::filesystem::path& path);

  private:
    UniqueFd fd_;
};

} // namespace kvr
