// SPDX-License-Identifier: MIT
// Changes to the table of messages within a transaction. Each keeps the queue's record (the caller saves it) and the
// store's usage in step.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

#include "store/store.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/mark_file.h"
#include "store_lmdb/queue_record.h"
#include "store_lmdb/transaction.h"

namespace kvr {

/// Bytes of the map that a record of this size takes, on average and rather too much than too little.
std::uint64_t stored_size(std::size_t record_size);

/// Appends a message that check_message took.
void append_message(WriteTxn& write, QueueRecord& queue, const OutgoingMessage& message);
/// Ends with the message that reaches either.
struct EraseLimit {
    std::uint64_t messages = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max(); ///< as stored
};

/// Deletes the queue's messages from `first` to `through`, held or not, up to the limit. Returns how many.
std::uint64_t erase_messages(WriteTxn& write, QueueRecord& queue, std::uint64_t first, std::uint64_t through,
                             EraseLimit limit);
struct Moved {
    std::uint64_t count = 0;
    std::uint64_t through = 0; ///< the messages up to here were moved, or are held
};

/// The work of Getter::move_group within a transaction, for messages after `position`.
Moved move_messages(WriteTxn& write, QueueRecord& from, QueueRecord& to, std::uint64_t position, std::uint64_t count,
                    const std::function<std::string(std::string_view)>& change);
/// Calls `each(cursor, sequence, record)` for the queue's messages from `first` to `through` while it returns true.
template <class Each>
void for_range(MDB_txn* txn, const Environment& env, std::uint32_t queue, std::uint64_t first, std::uint64_t through,
               Each each) {
    const MessageKey start(queue, first);
    Cursor cursor(txn, env.messages, env);
    MDB_val key = to_val(start.view());
    MDB_val value{};
    for (bool found = cursor.get(key, value, MDB_SET_RANGE); found; found = cursor.get(key, value, MDB_NEXT)) {
        const std::uint64_t sequence = MessageKey::sequence_in(to_view(key), queue);
        if (sequence == 0 || sequence > through || !each(cursor, sequence, to_view(value))) {
            return;
        }
    }
}

/// Counts messages and their data in a range: what a mark says is used. Returns depth and bytes.
std::pair<std::uint64_t, std::uint64_t> count_messages(MDB_txn* txn, const Environment& env, std::uint32_t queue,
                                                       UsedRange range);
/// Sequence of the first held message from `from` on, UINT64_MAX for none.
std::uint64_t first_held(MDB_txn* txn, const Environment& env, std::uint32_t queue, std::uint64_t from);

/// How often takers gave a message back.
std::uint32_t times_given_back(MDB_txn* txn, const Environment& env, const MessageKey& key);
/// Once more, unless the message is gone.
void count_given_back(WriteTxn& write, const MessageKey& key);

} // namespace kvr
