// SPDX-License-Identifier: MIT
// Files of a queue manager's folder, and the records of the store as a whole.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "store_lmdb/settings.h"
#include "store_lmdb/transaction.h"

namespace kvr {

/// Raised whenever an older program could misread what a newer one wrote. A store begins with the first one, which
/// older programs read, too; it has the second one once used messages are kept in it, which they would send again.
constexpr std::uint32_t kFirstStoreVersion = 1;
constexpr std::uint32_t kStoreVersion = 2;

struct StoreFiles {
    std::filesystem::path dir;

    [[nodiscard]] std::filesystem::path store() const { return dir / "store"; }   ///< the environment
    [[nodiscard]] std::filesystem::path queues() const { return dir / "queues"; } ///< marks, claims and FIFOs
    [[nodiscard]] std::filesystem::path reserve() const { return dir / "reserve"; }
    [[nodiscard]] std::filesystem::path drain_locks() const { return dir / "drain.lock"; }
    [[nodiscard]] std::filesystem::path mark(std::uint32_t queue) const {
        return queues() / (std::to_string(queue) + ".mark");
    }
    [[nodiscard]] std::filesystem::path claims(std::uint32_t queue) const {
        return queues() / (std::to_string(queue) + ".claims");
    }
    [[nodiscard]] std::filesystem::path fifo(std::uint32_t queue) const {
        return queues() / (std::to_string(queue) + ".fifo");
    }
};

struct StoreIdentity {
    std::uint64_t id; ///< random, made with the store
    std::string qmgr;
};

/// Throws kDamaged, kVersion.
StoreIdentity load_identity(MDB_txn* txn, const Environment& env);
/// As that of a new store.
void save_identity(WriteTxn& write, const StoreIdentity& identity);
/// Keeps programs out that cannot read this format.
void raise_format(WriteTxn& write, std::uint32_t version);

LmdbSettings load_settings(MDB_txn* txn, const Environment& env);
void save_settings(WriteTxn& write, const LmdbSettings& settings);

/// Bytes of the map that messages and objects take.
std::uint64_t load_usage(MDB_txn* txn, const Environment& env);
void save_usage(WriteTxn& write, std::uint64_t usage);

/// Takes the next queue id; ids are never used twice.
std::uint32_t next_queue_id(WriteTxn& write);

} // namespace kvr
