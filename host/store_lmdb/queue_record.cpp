// SPDX-License-Identifier: MIT
// What the store knows of a queue.
#include "store_lmdb/queue_record.h"

#include <cstring>

namespace kvr {

namespace {

constexpr std::uint32_t kRecordVersion = 1;
constexpr std::uint32_t kKeepingVersion = 2; ///< of a queue whose used messages were ever kept

/// The record's fixed part in the machine's byte order; the description follows.
struct FixedPart {
    std::uint32_t version;
    std::uint32_t id;
    std::uint64_t depth;
    std::uint64_t bytes;
    std::uint64_t held;
    std::uint64_t next_sequence;
    std::uint64_t generation;
    std::uint64_t releases;
};
static_assert(sizeof(FixedPart) == 56);

/// Follows it in a record of kKeepingVersion.
struct KeepingPart {
    std::uint64_t keeping;
    std::uint64_t kept;
    std::uint64_t kept_data;
    std::uint64_t next_use;
    std::uint64_t settled;
    std::uint64_t trimmed;
    std::int64_t trimmed_at;
};
static_assert(sizeof(KeepingPart) == 56);

template <class Part>
Part take_part(std::string_view& value) {
    Part part{};
    if (value.size() < sizeof part) {
        throw Error(Errc::kDamaged, "a queue's record is too short: restore the store from a copy");
    }
    std::memcpy(&part, value.data(), sizeof part);
    value.remove_prefix(sizeof part);
    return part;
}

template <class Part>
void add_part(std::string& value, const Part& part) {
    value.append(reinterpret_cast<const char*>(&part), sizeof part); // NOLINT: its bytes
}

} // namespace

QueueRecord decode_queue(std::string_view value) {
    const auto fixed = take_part<FixedPart>(value);
    QueueRecord record{fixed.id,         fixed.depth,    fixed.bytes, fixed.held, fixed.next_sequence,
                       fixed.generation, fixed.releases, {}};
    if (fixed.version == kKeepingVersion) {
        const auto part = take_part<KeepingPart>(value);
        record.keeping = part.keeping != 0;
        record.kept = part.kept;
        record.kept_data = part.kept_data;
        record.next_use = part.next_use;
        record.settled = part.settled;
        record.trimmed = part.trimmed;
        record.trimmed_at = part.trimmed_at;
    } else if (fixed.version != kRecordVersion) {
        throw Error(Errc::kDamaged, "a queue's record is of an unknown version: restore the store from a copy");
    }
    record.description = value;
    return record;
}

std::optional<QueueRecord> find_queue(MDB_txn* txn, std::string_view name, const Environment& env) {
    if (name.empty() || name.size() > kMaxQueueName) {
        return std::nullopt;
    }
    const auto value = table_get(txn, env.queues, name, env);
    return value ? std::optional(decode_queue(*value)) : std::nullopt;
}

QueueRecord load_queue(MDB_txn* txn, std::string_view name, const Environment& env) {
    auto record = find_queue(txn, name, env);
    if (!record) {
        throw Error(Errc::kNotFound,
                    "there is no queue '" + std::string(name.substr(0, kMaxQueueName)) + "': define it first");
    }
    return *std::move(record);
}

void save_queue(WriteTxn& write, std::string_view name, const QueueRecord& record) {
    std::string value;
    add_part(value, FixedPart{record.has_ranges() ? kKeepingVersion : kRecordVersion, record.id, record.depth,
                              record.bytes, record.held, record.next_sequence, record.generation, record.releases});
    if (record.has_ranges()) {
        add_part(value, KeepingPart{record.keeping ? 1U : 0U, record.kept, record.kept_data, record.next_use,
                                    record.settled, record.trimmed, record.trimmed_at});
    }
    table_put(write, write.env().queues, name, value + record.description);
}

} // namespace kvr
