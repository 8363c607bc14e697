// SPDX-License-Identifier: MIT
#include "store_lmdb/taken_once.h"

#include <algorithm>
#include <string>

#include "store_lmdb/keys.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/store_layout.h"

namespace kvr {

namespace {

constexpr std::size_t kIdentitySize = sizeof(MessageIdentity);
/// Two such records fill a page; a larger one would get pages of its own.
constexpr std::size_t kRecordIdentities = 126;
/// Identities beyond those that stay are deleted once they are so many: each delete costs the pages on the way to the
/// oldest. Where there are yet more, a put deletes so many more than it brings.
std::uint64_t greatest_surplus(std::uint64_t remember) {
    return std::max<std::uint64_t>(512, remember / 32);
}

/// Keys as those of messages, of the queue that no queue is.
MessageKey record_key(std::uint64_t number) {
    return {0, number};
}

void append_record(WriteTxn& write, std::uint64_t number, std::span<const MessageIdentity> identities) {
    const MessageKey key = record_key(number);
    MDB_val key_val = to_val(key.view());
    MDB_val value{identities.size_bytes(), const_cast<char*>(identities.front().data())}; // NOLINT: LMDB reads it only
    check_mdb(mdb_put(write.txn(), write.env().taken, &key_val, &value, MDB_APPEND), "remember messages",
              write.env().folder());
}

} // namespace

std::vector<bool> TakenOnce::take(WriteTxn& write, std::span<const MessageIdentity> identities,
                                  std::uint64_t remember) {
    known_.reserve(remember + 2 * greatest_surplus(remember));
    try {
        follow(write.txn(), write.env());
    } catch (...) {
        clear(); // it may have got half of a record
        throw;
    }
    IdentityRing here;
    std::vector<MessageIdentity> fresh;
    std::vector<bool> is_fresh;
    for (const MessageIdentity& identity : identities) {
        is_fresh.push_back(!known_.contains(identity) && !here.contains(identity));
        if (is_fresh.back()) {
            here.push(identity);
            fresh.push_back(identity);
        }
    }
    remember_these(write, fresh, remember);
    return is_fresh;
}

/// Whatever makes the newest record in memory another one than the table's, a table that was put back to an earlier
/// state or all of it replaced by other processes, has memory read anew.
void TakenOnce::follow(MDB_txn* txn, Environment& env) {
    const std::uint64_t next = first_ + counts_.size();
    const auto newest = counts_.empty() ? std::nullopt : table_get(txn, env.taken, record_key(next - 1).view(), env);
    if (!newest || newest->size() != counts_.back() * kIdentitySize || !known_.ends_with(*newest)) {
        clear();
    }
    Cursor cursor(txn, env.taken, env);
    MDB_val key{};
    MDB_val value{};
    if (!cursor.get(key, value, MDB_FIRST)) {
        return;
    }
    const std::uint64_t oldest = MessageKey::sequence_in(to_view(key), 0);
    if (counts_.empty()) {
        first_ = oldest;
    }
    for (; first_ < oldest; ++first_) {
        for (std::size_t i = counts_.front(); i > 0; --i) {
            known_.pop();
        }
        counts_.pop_front();
    }
    load_from(cursor, env);
}

/// Adds what comes behind the records in memory.
void TakenOnce::load_from(Cursor& cursor, Environment& env) {
    const MessageKey start = record_key(first_ + counts_.size());
    MDB_val key = to_val(start.view());
    MDB_val value{};
    std::uint64_t read = 0;
    for (bool found = cursor.get(key, value, MDB_SET_RANGE); found; found = cursor.get(key, value, MDB_NEXT)) {
        add_record(to_view(value));
        if ((read += value.mv_size) > kReadBeforeDrop / 16) { // they lie apart, between pages of messages
            env.drop_pages();
            read = 0;
        }
    }
}

void TakenOnce::add_record(std::string_view record) {
    const std::size_t count = record.size() / kIdentitySize;
    for (std::size_t i = 0; i < count; ++i) {
        MessageIdentity identity;
        std::ranges::copy(record.substr(i * kIdentitySize, kIdentitySize), identity.begin());
        known_.push(identity);
    }
    counts_.push_back(static_cast<std::uint8_t>(count));
}

void TakenOnce::remember_these(WriteTxn& write, std::span<const MessageIdentity> identities, std::uint64_t remember) {
    if (identities.empty()) {
        return;
    }
    std::uint64_t added = 0;
    std::uint64_t number = first_ + counts_.size();
    const std::size_t records = (identities.size() + kRecordIdentities - 1) / kRecordIdentities;
    const std::size_t each = (identities.size() + records - 1) / records;
    for (std::span<const MessageIdentity> rest = identities; !rest.empty();) {
        const auto part = rest.first(std::min(rest.size(), each));
        append_record(write, number++, part);
        added += stored_size(part.size_bytes());
        rest = rest.subspan(part.size());
    }
    std::uint64_t freed = 0;
    std::uint64_t left = known_.size() + identities.size();
    const std::uint64_t surplus = greatest_surplus(remember);
    const std::uint64_t enough = left - (left < remember + surplus ? 0 : std::min(left, identities.size() + surplus));
    for (std::size_t i = 0; i < counts_.size() && left > enough && left - counts_[i] >= remember; ++i) {
        table_erase(write, write.env().taken, record_key(first_ + i).view());
        freed += stored_size(counts_[i] * kIdentitySize);
        left -= counts_[i];
    }
    const std::uint64_t usage = load_usage(write.txn(), write.env()) + added;
    save_usage(write, usage - std::min(usage, freed));
}

void TakenOnce::clear() {
    known_.clear();
    counts_.clear();
    first_ = 1;
}

void TakenOnce::settle(std::span<const MessageIdentity> identities, std::vector<bool>& put) {
    for (std::size_t i = 0; !open_.empty() && i < identities.size(); ++i) {
        if (open_.erase(identities[i]) > 0) {
            put[i] = true;
        }
    }
}

} // namespace kvr
