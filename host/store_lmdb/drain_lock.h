// SPDX-License-Identifier: MIT
// Who drains a queue, alone, or takes from it, together with others: one byte of a lock file for each queue. The system
// releases it when the process dies, and a forked child does not inherit it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>

#include <sys/types.h>

#include "kavutil/unique_fd.h"

namespace kvr {

class DrainLocks {
  public:
    /// The file stays open as long as this lives: closing any descriptor of it would release all locks of the process.
    explicit DrainLocks(const std::filesystem::path& path);

    /// @return 0 when the lock is the caller's now, else the process that has it (this one included; lock_holder.h)
    pid_t acquire(std::uint32_t queue);
    /// The same for a lock that others can have acquired in this way as well, this process more than once.
    pid_t acquire_shared(std::uint32_t queue);
    void release(std::uint32_t queue);
    /// @return a process that has the lock, 0 for none (lock_holder.h)
    pid_t holder(std::uint32_t queue);

  private:
    pid_t lock(std::uint32_t queue, short type);

    UniqueFd fd_;
    std::mutex mutex_;
    /// By queue how often this process has it, 0 for alone: the system's locks do not exclude their own process.
    std::map<std::uint32_t, unsigned> ours_;
};

} // namespace kvr
