// SPDX-License-Identifier: MIT
// What the store knows of a queue. Changed in the same transaction as the queue's messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "store/store.h"
#include "store_lmdb/transaction.h"

namespace kvr {

struct QueueRecord {
    std::uint32_t id = 0;            ///< never given to another queue
    std::uint64_t depth = 0;         ///< messages in the table, held and used ones included
    std::uint64_t bytes = 0;         ///< their data
    std::uint64_t held = 0;          ///< those that are held
    std::uint64_t next_sequence = 1; ///< of the next put; sequences never restart
    std::uint64_t generation = 1;    ///< group deletes so far: a mark of another generation says nothing
    std::uint64_t releases = 0;      ///< times that held messages were put back
    std::string description;
};

/// Nothing when there is no such queue.
std::optional<QueueRecord> find_queue(MDB_txn* txn, std::string_view name, const Environment& env);
/// Throws kNotFound.
QueueRecord load_queue(MDB_txn* txn, std::string_view name, const Environment& env);
void save_queue(WriteTxn& write, std::string_view name, const QueueRecord& record);
/// Throws kDamaged.
QueueRecord decode_queue(std::string_view value);

} // namespace kvr
