// SPDX-License-Identifier: MIT
// What the store knows of a queue.
#include "store_lmdb/queue_record.h"

#include <cstring>

namespace kvr {

namespace {

constexpr std::uint32_t kRecordVersion = 1;

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

} // namespace

QueueRecord decode_queue(std::string_view value) {
    FixedPart fixed{};
    if (value.size() < sizeof fixed) {
        throw Error(Errc::kDamaged, "a queue's record is too short: restore the store from a copy");
    }
    std::memcpy(&fixed, value.data(), sizeof fixed);
    if (fixed.version != kRecordVersion) {
        throw Error(Errc::kDamaged, "a queue's record is of an unknown version: restore the store from a copy");
    }
    return {fixed.id,
            fixed.depth,
            fixed.bytes,
            fixed.held,
            fixed.next_sequence,
            fixed.generation,
            fixed.releases,
            std::string(value.substr(sizeof fixed))};
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
    const FixedPart fixed{kRecordVersion,       record.id,         record.depth,   record.bytes, record.held,
                          record.next_sequence, record.generation, record.releases};
    std::string value(sizeof fixed, '\0');
    std::memcpy(value.data(), &fixed, sizeof fixed);
    table_put(write, write.env().queues, name, value + record.description);
}

} // namespace kvr
