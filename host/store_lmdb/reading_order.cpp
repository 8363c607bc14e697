// SPDX-License-Identifier: MIT
#include "store_lmdb/reading_order.h"

#include <limits>

#include "store/message_record.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/message_table.h"

namespace kvr {

namespace {

constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

} // namespace

void ReadingOrder::plan_group(const Reader& reader) {
    const QueueRecord record = load_queue(reader.txn(), name_, reader.env());
    if (record.id != queue_) {
        throw Error(Errc::kNotFound, "queue '" + name_ + "' was deleted");
    }
    if (record.releases != releases_) {
        releases_ = record.releases;
        position_ = 0; // messages that were held stand before it
    }
    may_be_held_ = record.held > 0;
    may_be_kept_ = record.has_ranges();
    find_ceiling(reader);
}

/// Goes behind what is kept at the position.
void ReadingOrder::find_ceiling(const Reader& reader) {
    repeat_ = false;
    edge_ = kNone;
    for (bool kept = may_be_kept_; kept;) {
        const auto range = find_range(reader.txn(), reader.env(), queue_, position_ + 1);
        kept = range && range->keeps(position_ + 1);
        repeat_ = range && !kept && range->contains(position_ + 1);
        edge_ = !range ? kNone : repeat_ ? range->through + 1 : range->first;
        position_ = kept ? range->through : position_;
    }
    held_ = may_be_held_ ? first_held(reader.txn(), reader.env(), queue_, position_ + 1) : kNone;
}

void ReadingOrder::pass_in_group(const Reader& reader, std::uint64_t sequence) {
    // No release counts as known: the next group looks for released messages before it.
    position_ = sequence;
    find_ceiling(reader);
    if (position_ != sequence) { // the group must not go on behind what is kept
        position_ = sequence;
        edge_ = sequence + 1;
    }
}

std::uint64_t ReadingOrder::move_position(const QueueRecord& record) {
    position_ = record.releases == releases_ ? position_ : 0;
    releases_ = record.releases;
    return position_;
}

ReadingOrder::Next ReadingOrder::look(const Reader& reader, const UsedGroup& group) {
    if (group.empty()) {
        plan_group(reader);
    }
    Cursor cursor(reader.txn(), reader.env().messages, reader.env());
    for (;;) {
        const MessageKey start(queue_, position_ + 1);
        MDB_val key = to_val(start.view());
        MDB_val value{};
        const bool found = cursor.get(key, value, MDB_SET_RANGE);
        const std::uint64_t sequence = found ? MessageKey::sequence_in(to_view(key), queue_) : 0;
        if (sequence == 0) {
            at_end_ = true;
            return {.found = Found::kNothing, .sequence = 0, .record = {}};
        }
        if (sequence < ceiling()) {
            const std::string_view record = to_view(value);
            if (!group.has_room(data_bytes(record))) {
                return {.found = Found::kGroupFull, .sequence = 0, .record = {}};
            }
            const std::uint64_t after =
                cursor.get(key, value, MDB_NEXT) ? MessageKey::sequence_in(to_view(key), queue_) : 0;
            at_end_ = after == 0 || after >= ceiling();
            return {.found = Found::kMessage, .sequence = sequence, .record = record};
        }
        if (!group.empty()) {
            return {.found = Found::kEdge, .sequence = 0, .record = {}};
        }
        position_ = held_ < edge_ ? held_ : edge_ - 1;
        find_ceiling(reader);
    }
}

} // namespace kvr
