// SPDX-License-Identifier: MIT
// What a disk holds for certain, as platter.cpp keeps it.
#pragma once

#include <string>

namespace kvr::test {

/// Environment: the folder whose files count, and the folder of the platter.
inline constexpr char kPlatterOf[] = "KVR_PLATTER_OF";
inline constexpr char kPlatter[] = "KVR_PLATTER";

/// Number and birth of a file: numbers are used again. `path` counts from `fd`, and may be empty.
std::string platter_key(int fd, const char* path);

/// Held while the platter changes, for all processes.
class PlatterLock {
  public:
    explicit PlatterLock(const std::string& platter);
    ~PlatterLock();
    PlatterLock(const PlatterLock&) = delete;
    PlatterLock& operator=(const PlatterLock&) = delete;

  private:
    int fd_;
};

} // namespace kvr::test
