// SPDX-License-Identifier: MIT
// A descriptor that is closed with its owner.
#pragma once

#include <utility>

#include <unistd.h>

namespace kvr {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
    /// Closes what it held. Where a failed close matters, the data was synced before.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            (void)::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

} // namespace kvr
