// SPDX-License-Identifier: MIT
// A progress bar on standard error, for people only: silent when that is no terminal.
#pragma once

#include <chrono>
#include <cstdint>

namespace kvr {

class Progress {
  public:
    explicit Progress(std::uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// Redraws a few times a second.
    void update(std::uint64_t done);

  private:
    using Clock = std::chrono::steady_clock;
    std::uint64_t total_;
    bool shown_;
    bool drawn_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_;
};

} // namespace kvr
