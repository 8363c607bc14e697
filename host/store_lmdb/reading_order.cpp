// SPDX-License-Identifier: MIT
#include "store_lmdb/reading_order.h"

#include <limits>

#include "store/message_record.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/message_table.h"

namespace kvr {

void ReadingOrder::plan_group(const Reader& reader) {
    const QueueRecord record = load_queue(reader.txn(), name_, reader.env());
    if (record.id != queue_) {
        throw Error(Errc::kNotFound, "queue '" + name_ + "' was deleted");
    }
    if (record.releases != releases_) {
        releases_ = record.releases;
        position_ = 0; // messages that were held stand before it
    }
    ceiling_ = record.held > 0 ? first_held(reader.txn(), reader.env(), queue_, position_ + 1)
                               : std::numeric_limits<std::uint64_t>::max();
}

void ReadingOrder::pass_in_group(const Reader& reader, std::uint64_t sequence) {
    // No release counts as known: the next group looks for released messages before it.
    position_ = sequence;
    ceiling_ = first_held(reader.txn(), reader.env(), queue_, position_ + 1);
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
        if (sequence < ceiling_) {
            const std::string_view record = to_view(value);
            if (!group.has_room(data_bytes(record))) {
                return {.found = Found::kGroupFull, .sequence = 0, .record = {}};
            }
            const std::uint64_t after =
                cursor.get(key, value, MDB_NEXT) ? MessageKey::sequence_in(to_view(key), queue_) : 0;
            at_end_ = after == 0 || after >= ceiling_;
            return {.found = Found::kMessage, .sequence = sequence, .record = record};
        }
        if (!group.empty()) {
            return {.found = Found::kHeldOne, .sequence = 0, .record = {}};
        }
        position_ = ceiling_;
        ceiling_ = first_held(reader.txn(), reader.env(), queue_, position_ + 1);
    }
}

} // namespace kvr
