// SPDX-License-Identifier: MIT
// Room on the disk that is kept for the work that must go on when the disk is full: taking messages off their queues,
// holding them, dead-lettering them. LMDB writes changed pages to new places, so that a delete needs room, too. The
// room is a file beside the environment that holds nothing; to use the room, the file is removed.
//
// A put gives way to that work. It makes the file again first when it is missing; and where the disk has no room for
// the file, the put may only use pages that lie free inside the environment, and only those beyond what the file would
// have held.
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
