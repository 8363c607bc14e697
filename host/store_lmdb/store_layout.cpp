// SPDX-License-Identifier: MIT
// Files of a queue manager's folder, and the records of the store as a whole.
#include "store_lmdb/store_layout.h"

#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

namespace kvr {

namespace {

constexpr std::string_view kIdentityKey = "kavro.identity";
constexpr std::string_view kSettingsKey = "kavro.settings";
constexpr std::string_view kUsageKey = "kavro.usage";
constexpr std::string_view kNextQueueKey = "kavro.next_queue";

/// The name of the queue manager follows.
struct IdentityPart {
    std::uint32_t version; ///< stays the first field in every version
    std::uint32_t reserved;
    std::uint64_t id;
};

struct SettingsPart {
    std::uint64_t quota;
    std::uint64_t map_size;
    std::uint64_t sync;
};

template <class T>
std::optional<T> load_part(MDB_txn* txn, std::string_view key, const Environment& env) {
    static_assert(std::is_trivially_copyable_v<T>);
    const auto value = table_get(txn, env.main, key, env);
    if (!value) {
        return std::nullopt;
    }
    T part{};
    if (value->size() != sizeof part) {
        throw Error(Errc::kDamaged, env.folder().string() + ": a record of the store has a wrong length: restore it "
                                                            "from a copy");
    }
    std::memcpy(&part, value->data(), sizeof part);
    return part;
}

template <class T>
void save_part(WriteTxn& write, std::string_view key, const T& part) {
    std::string value(sizeof part, '\0');
    std::memcpy(value.data(), &part, sizeof part);
    table_put(write, write.env().main, key, value);
}

} // namespace

StoreIdentity load_identity(MDB_txn* txn, const Environment& env) {
    const auto value = table_get(txn, env.main, kIdentityKey, env);
    std::uint32_t version = 0;
    if (!value || value->size() < sizeof version) {
        throw Error(Errc::kDamaged, env.folder().string() + " holds no queue manager's store: restore it from a copy");
    }
    std::memcpy(&version, value->data(), sizeof version);
    if (version < kFirstStoreVersion || version > kStoreVersion) {
        throw Error(Errc::kVersion, env.folder().string() + " was written in format " + std::to_string(version) +
                                        ", this program reads formats up to " + std::to_string(kStoreVersion) +
                                        ": install the version that wrote it, or one after that");
    }
    IdentityPart part{};
    if (value->size() <= sizeof part) {
        throw Error(Errc::kDamaged, env.folder().string() + " does not say whose store it is: restore it from a copy");
    }
    std::memcpy(&part, value->data(), sizeof part);
    return {part.id, std::string(value->substr(sizeof part))};
}

void save_identity(WriteTxn& write, const StoreIdentity& identity) {
    const IdentityPart part{kFirstStoreVersion, 0, identity.id};
    std::string value(sizeof part, '\0');
    std::memcpy(value.data(), &part, sizeof part);
    table_put(write, write.env().main, kIdentityKey, value + identity.qmgr);
}

void raise_format(WriteTxn& write, std::uint32_t version) {
    std::string value(table_get(write.txn(), write.env().main, kIdentityKey, write.env()).value_or(std::string_view()));
    if (value.size() >= sizeof version) {
        std::memcpy(value.data(), &version, sizeof version);
        table_put(write, write.env().main, kIdentityKey, value);
    }
}

LmdbSettings load_settings(MDB_txn* txn, const Environment& env) {
    const auto part = load_part<SettingsPart>(txn, kSettingsKey, env);
    return part ? LmdbSettings{part->quota, part->map_size, part->sync != 0} : LmdbSettings{};
}

void save_settings(WriteTxn& write, const LmdbSettings& settings) {
    save_part(write, kSettingsKey, SettingsPart{settings.quota, settings.map_size, settings.sync ? 1U : 0U});
}

std::uint64_t load_usage(MDB_txn* txn, const Environment& env) {
    return load_part<std::uint64_t>(txn, kUsageKey, env).value_or(0);
}

void save_usage(WriteTxn& write, std::uint64_t usage) {
    save_part(write, kUsageKey, usage);
}

std::uint32_t next_queue_id(WriteTxn& write) {
    const std::uint32_t id = load_part<std::uint32_t>(write.txn(), kNextQueueKey, write.env()).value_or(1);
    save_part(write, kNextQueueKey, id + 1);
    return id;
}

} // namespace kvr
