// SPDX-License-Identifier: MIT
// A file of allocated blocks that is given up when the disk is full, so that messages can still be taken off their
// queues, held and dead-lettered. Puts wait until it is back: they never eat what it gave.
#pragma once

#include <filesystem>
#include <utility>

namespace kvr {

class ReserveFile {
  public:
    explicit ReserveFile(std::filesystem::path path) : path_(std::move(path)) {}

    /// Makes the file when it is missing. Throws kFull when there is no room for it.
    void require() const;
    /// Gives its blocks back to the disk.
    void release() const;

  private:
    std::filesystem::path path_;
};

} // namespace kvr
