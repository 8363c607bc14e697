// SPDX-License-Identifier: MIT
// A file of allocated blocks that is given up when the disk is full, so that messages can still be taken off their
// queues, held and dead-lettered. Puts make it anew before they take room themselves; where the disk has none for it,
// they take only what lies free inside the store beyond as much again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <utility>

namespace kvr {

class ReserveFile {
  public:
    explicit ReserveFile(std::filesystem::path path) : path_(std::move(path)) {}

    static constexpr std::uint64_t kSize = 1ULL << 20; ///< some tens of group deletes, a few pages of each table each

    /// Makes the file when it is missing. False when the disk has no room for it. Throws kIo, kPermission.
    [[nodiscard]] bool ensure() const;
    /// Gives its blocks back to the disk.
    void release() const;

  private:
    std::filesystem::path path_;
};

} // namespace kvr
