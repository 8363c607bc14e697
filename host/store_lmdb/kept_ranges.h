// SPDX-License-Identifier: MIT
// Used messages that stay on their queue (store/keep.h), as ranges of sequences within a transaction. All messages of
// the queue from a range's first to its last one are in the same state; a range begins as a group of used messages, or
// as some small ones of one second.
//
// Ranges are numbered in the order of their use. Those below the queue record's `settled` were used over lines that
// ended in order, or whose loss was seen to.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "store/keep.h"
#include "store_lmdb/mark_file.h"
#include "store_lmdb/queue_record.h"
#include "store_lmdb/transaction.h"

namespace kvr {

enum class RangeState : std::uint32_t {
    kKept = 1,
    kSuspected = 2, ///< kept, and can be gone with a line
    kAgain = 3,     ///< not kept any more: handed out again
};

struct KeptRange {
    std::uint64_t first = 0;
    std::uint64_t through = 0;
    RangeState state = RangeState::kKept;
    std::uint64_t messages = 0;
    std::uint64_t data = 0; ///< bytes of their data
    std::int64_t used_at = 0;
    std::uint64_t use = 0; ///< its number

    [[nodiscard]] bool contains(std::uint64_t sequence) const { return sequence >= first && sequence <= through; }
    [[nodiscard]] bool is_kept() const { return state != RangeState::kAgain; }
    [[nodiscard]] bool keeps(std::uint64_t sequence) const { return is_kept() && contains(sequence); }
};

/// Bytes on the line of so many messages with so much data, their files aside.
std::uint64_t line_bytes(std::uint64_t messages, std::uint64_t data);

/// The first range that ends at this sequence or behind it.
std::optional<KeptRange> find_range(MDB_txn* txn, const Environment& env, std::uint32_t queue, std::uint64_t sequence);

/// Looks up ranges for sequences that rise.
class RangeWalk {
  public:
    RangeWalk(MDB_txn* txn, const Environment& env, const QueueRecord& queue);
    /// The first range that ends at this sequence or behind it; null: none.
    const KeptRange* at(std::uint64_t sequence);

  private:
    MDB_txn* txn_;
    const Environment& env_;
    std::uint32_t queue_;
    std::optional<KeptRange> range_;
    bool ended_;
};

// Each keeps the queue's record in step; the caller saves it.

/// A group of messages that were used.
struct UsedMessages {
    UsedRange range;
    std::uint64_t messages = 0;
    std::uint64_t data = 0;
    std::int64_t used_at = 0;
};

/// From here on used messages of the queue are kept, whoever finds them. An older program refuses the store then.
void begin_keeping(WriteTxn& write, QueueRecord& queue);
/// Keeps a group, which lay wholly within a range that was handed out again or outside of all.
void keep_messages(WriteTxn& write, QueueRecord& queue, const UsedMessages& used);
/// These messages are about to go, or to be kept: they are handed out again no more.
void forget_repeats(WriteTxn& write, QueueRecord& queue, UsedRange range);
/// Deletes some of the first used ones that are beyond the limits.
void trim_kept(WriteTxn& write, QueueRecord& queue, const KeepLimits& limits, std::int64_t now);
/// Whether trim_kept would find something for their age alone.
bool has_aged(MDB_txn* txn, const Environment& env, std::uint32_t queue, const KeepLimits& limits, std::int64_t now);
/// Deletes some kept messages, and what is known of repeats. False when none are kept any more.
bool drop_ranges(WriteTxn& write, QueueRecord& queue);
/// What was kept since the last settling went over a line that broke at that time; 0: when nobody looked, so that its
/// last use counts.
Loss suspect(WriteTxn& write, QueueRecord& queue, const LossWindow& window, bool repeat, std::int64_t lost_at);
/// Puts the kept messages of these places back on the queue. Returns how many.
std::uint64_t hand_out_again(WriteTxn& write, QueueRecord& queue, Places places);

/// Sums over the queue's ranges.
struct RangeSums {
    Loss suspected;
    std::uint64_t repeats = 0;
};
RangeSums sum_ranges(MDB_txn* txn, const Environment& env, const QueueRecord& queue);

} // namespace kvr
