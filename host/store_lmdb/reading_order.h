// SPDX-License-Identifier: MIT
// Which message of a queue comes next for its drainer: the first one behind its position that is neither held nor kept.
// Messages that were put back since stand before the position again: a new group begins with a look at them.
//
// A group passes neither a held message nor the edge of a range (kept_ranges.h), so that it lies wholly within one that
// is handed out again, or outside of all.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "store_lmdb/transaction.h"
#include "store_lmdb/used_group.h"

namespace kvr {

class ReadingOrder {
  public:
    enum class Found {
        kMessage,
        kNothing,   ///< no message follows
        kEdge,      ///< the next message is held, or behind the edge of a range: a group ends there
        kGroupFull, ///< the next message would be one too many for the group
    };
    struct Next {
        Found found;
        std::uint64_t sequence = 0;
        std::string_view record; ///< valid until the transaction ends
    };

    ReadingOrder(std::uint32_t queue, const std::string& name) : queue_(queue), name_(name) {}

    /// Looks for the next message, for a group of what was used before it. Throws kNotFound when the queue is gone.
    Next look(const Reader& reader, const UsedGroup& group);
    /// False when the last look found a message and another one behind it that could be taken.
    [[nodiscard]] bool at_end() const { return at_end_; }
    /// Whether the group's messages are handed out again.
    [[nodiscard]] bool is_repeat() const { return repeat_; }

    /// Goes on behind this message.
    void pass(std::uint64_t sequence) { position_ = sequence; }
    /// The same in the middle of a group that this order has not seen begin.
    void pass_in_group(const Reader& reader, std::uint64_t sequence);
    /// The message that was found last comes again.
    void go_back() { at_end_ = false; }
    /// Where a move out of the queue begins, as of this record: messages after it.
    std::uint64_t move_position(const QueueRecord& record);

  private:
    void plan_group(const Reader& reader);
    void find_ceiling(const Reader& reader);
    [[nodiscard]] std::uint64_t ceiling() const { return std::min(held_, edge_); }

    std::uint32_t queue_;
    const std::string& name_;
    std::uint64_t releases_ = 0; ///< of the queue's record, when position_ was set
    std::uint64_t position_ = 0; ///< messages after this sequence come next
    bool may_be_held_ = true;
    bool may_be_kept_ = true;
    std::uint64_t held_ = 0; ///< first held message after the position when the group began
    std::uint64_t edge_ = 0; ///< where the state of messages after the position changes
    bool repeat_ = false;
    bool at_end_ = true;
};

} // namespace kvr
