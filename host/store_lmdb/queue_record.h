// SPDX-License-Identifier: MIT
// What the store knows of a queue. Changed in the same transaction as the queue's messages.
#pragma once

#include <algorithm>
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
    std::uint64_t releases = 0;      ///< times that held or kept messages were put back
    std::string description;

    // Used messages that are kept (kept_ranges.h); they are in the table, and in neither depth nor bytes.
    bool keeping = false;        ///< what the queue's last drainer used is to be kept
    std::uint64_t kept = 0;      ///< messages
    std::uint64_t kept_data = 0; ///< bytes of their data
    std::uint64_t next_use = 0;  ///< number of the next range; 0: none was ever kept
    std::uint64_t settled = 0;   ///< ranges below this number are under no suspicion that is still to be raised
    std::uint64_t trimmed = 0;   ///< greatest number of a range that was deleted for the limits' sake
    std::int64_t trimmed_at = 0; ///< when it was used
    [[nodiscard]] bool has_ranges() const { return next_use > 0; }
};

/// A count less an amount that cannot be more, in a store that is whole.
constexpr std::uint64_t less(std::uint64_t from, std::uint64_t amount) {
    return from - std::min(from, amount);
}

/// Nothing when there is no such queue.
std::optional<QueueRecord> find_queue(MDB_txn* txn, std::string_view name, const Environment& env);
/// Throws kNotFound.
QueueRecord load_queue(MDB_txn* txn, std::string_view name, const Environment& env);
void save_queue(WriteTxn& write, std::string_view name, const QueueRecord& record);
/// Throws kDamaged.
QueueRecord decode_queue(std::string_view value);

} // namespace kvr
