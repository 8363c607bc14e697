// SPDX-License-Identifier: MIT
// What the takers of a queue have reserved: pages of memory shared by all processes through a file, which survive their
// writers. A taker's byte of the file is locked while it lives, so that others see which reservations are of the dead.
//
// Every change is made by whoever has the turn, and each one alone leaves the pages valid: the turn's holder may be
// killed between any two. After a reboot the pages say nothing (their boot id differs).
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "store_lmdb/access_locks.h"

namespace kvr {

class ClaimsFile {
  public:
    /// Maps the file of a queue; makes it when it is missing. One for each process and queue: closing any descriptor of
    /// it would release all locks of the process.
    ClaimsFile(const std::filesystem::path& path, std::uint64_t store_id, std::uint32_t queue_id);
    ~ClaimsFile();
    ClaimsFile(const ClaimsFile&) = delete;
    ClaimsFile& operator=(const ClaimsFile&) = delete;

    /// Sequences that takers have reserved who live.
    [[nodiscard]] std::set<std::uint64_t> reserved();
    /// Whether nobody has looked for dead takers in this second.
    [[nodiscard]] bool look_is_due() const;
    /// The turn, for all that follows. Wait for no other lock meanwhile.
    [[nodiscard]] ByteLock& turn() { return turn_; }

    /// A new taker. Where it is the only one nothing is reserved, and nothing known of the queue. Those of the dead are
    /// given back before. Throws kBusy when there are too many.
    std::uint32_t add_taker();
    /// Ends the reservations of a taker, and the taker.
    void remove_taker(std::uint32_t taker);
    /// Leaves a taker of this process to the others, as if the process had died. Needs no turn.
    void abandon_taker(std::uint32_t taker);
    /// A taker whose process died; it is this process's now, to be removed.
    std::optional<std::uint32_t> adopt_dead();
    /// Sequences that a taker has reserved.
    [[nodiscard]] std::vector<std::uint64_t> reserved_by(std::uint32_t taker) const;

    [[nodiscard]] bool is_reserved(std::uint64_t sequence) const;
    /// Returns the entry, for end(). Throws kFull when too much is reserved.
    std::uint32_t reserve(std::uint64_t sequence, std::uint32_t taker);
    /// @param back  the message stays on the queue
    void end(std::uint32_t entry, bool back);

    /// All messages before this place are reserved, or nobody's to take, while the queue's record has so many releases.
    [[nodiscard]] std::uint64_t next(std::uint64_t releases) const;
    void set_next(std::uint64_t sequence, std::uint64_t releases);
    /// Changes whenever messages before next() are free again.
    [[nodiscard]] std::uint64_t times_back() const;

  private:
    struct Pages;
    [[nodiscard]] bool is_ours() const;
    void reset();
    [[nodiscard]] bool is_known(std::uint32_t taker) const;
    [[nodiscard]] bool lives(std::uint32_t taker) const;
    bool lock_taker(std::uint32_t taker);

    UniqueFd fd_;
    ByteLock turn_;
    Pages* pages_ = nullptr;
    std::uint64_t store_id_;
    std::uint32_t queue_id_;
    mutable std::mutex ours_mutex_;
    std::set<std::uint32_t> ours_; ///< takers of this process: the system's locks do not exclude their own process
};

} // namespace kvr
