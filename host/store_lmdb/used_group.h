// SPDX-License-Identifier: MIT
// The current group of a queue: messages that its drainer used and that are still to be deleted. Deleted together,
// because a durable delete costs a disk flush, whatever it holds. mark_file.h says what a crash leaves behind at each
// step.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "store_lmdb/lmdb_store.h"

namespace kvr {

class UsedGroup {
  public:
    /// With 64 messages the flushes took most of a message's time. The bounds are also those of what a power loss
    /// repeats.
    static constexpr std::uint64_t kMessages = 512;
    static constexpr std::uint64_t kBytes = 8ULL << 20;

    /// Takes over what the queue's last drainer left. The references outlive this.
    UsedGroup(LmdbStore& store, const std::string& queue, MarkFile& mark, const QueueRecord& record,
              const DrainOptions& options);

    /// The next message of the queue's order is used from here on: this is the point that decides whether a killed
    /// process repeats it. `bytes` are those of its data.
    void add(std::uint64_t sequence, std::uint64_t bytes);
    /// Whether a message of so many bytes may follow in this group.
    [[nodiscard]] bool has_room(std::uint64_t bytes) const;
    [[nodiscard]] bool empty() const { return used_.empty(); }
    /// The last message of the group.
    [[nodiscard]] std::uint64_t through() const { return used_.through; }

    /// Deletes or keeps the group, deletes some of what was kept for long enough, and does `extra` with the queue's
    /// record, all in one transaction; then begins a new group.
    void finish(const std::function<void(WriteTxn&, QueueRecord&)>& extra);
    /// The same for the group alone, if there is one; the last flush is left to the next commit.
    void finish_late();
    /// From here on what was kept for long enough is deleted; not before it is known what of it is suspected.
    void begin_trimming() { trims_ = true; }
    /// Deletes some of it. No message may be in the group.
    void trim_late();
    /// Lets the group go on beyond its bounds, by as much again: where not even a delete finds room on the disk, sent
    /// once and repeated after a power loss is better than not sent.
    void go_on();

  private:
    void settle(WriteTxn& write, QueueRecord& record);

    LmdbStore& store_;
    const std::string& queue_;
    MarkFile& mark_;
    std::uint64_t generation_; ///< of the queue's record: only the drainer moves it
    const DrainOptions& options_;
    bool keeps_; ///< the current group
    bool trims_ = false;
    UsedRange used_;
    std::uint64_t messages_ = 0; ///< of it
    std::uint64_t data_ = 0;     ///< bytes of their data
    bool counted_;               ///< false: what was taken over is in neither
    std::uint64_t messages_left_ = 0;
    std::uint64_t bytes_left_ = 0;
};

} // namespace kvr
