// SPDX-License-Identifier: MIT
// The named FIFO on which the drainer of an empty queue waits, with the signals of its caller let in only there.
#pragma once

#include <csignal>
#include <filesystem>

namespace kvr {

/// Blocks signals from block() until destroyed, restore() apart. Synchronous ones (faults) stay deliverable.
class SignalBlock {
  public:
    SignalBlock() = default;
    ~SignalBlock() { restore(); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    void block();
    void restore();
    /// The caller's mask; valid while blocked.
    [[nodiscard]] const sigset_t& original() const { return original_; }

  private:
    sigset_t original_{};
    bool blocked_ = false;
};

class WakeFifo {
  public:
    /// Opens the FIFO for waiting; makes it when it is missing.
    explicit WakeFifo(const std::filesystem::path& path);
    ~WakeFifo();
    WakeFifo(const WakeFifo&) = delete;
    WakeFifo& operator=(const WakeFifo&) = delete;

    /// Waits with the given signal mask for a wake-up or for the time of a second look.
    /// @return false when a signal ended the wait
    bool wait(const sigset_t& mask);

    static void create(const std::filesystem::path& path);
    /// Wakes whoever waits. Never fails: who is not woken looks again by himself.
    static void wake(const std::filesystem::path& path);

  private:
    int fd_;
};

} // namespace kvr
