// SPDX-License-Identifier: MIT
// Puts of messages, and of those among them that were not taken yet.
#include <cerrno>

#include "store/message_record.h"
#include "store/system_error.h"
#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/wake_fifo.h"

namespace kvr {

namespace {

std::uint64_t growth_of(std::span<const OutgoingMessage> messages) {
    std::uint64_t growth = 0;
    for (const OutgoingMessage& message : messages) {
        growth += stored_size(encoded_size(message));
    }
    return growth;
}

/// Without a reserve on the disk a put must leave as much free inside the store.
void check_free_pages(Environment& env, std::uint64_t growth) {
    Reader reader(env);
    const ReadScope scope(reader);
    if (reader.free_bytes() < ReserveFile::kSize + 2 * growth) {
        throw_system("put messages", env.folder(), ENOSPC);
    }
}

bool ensure_reserve(const ReserveFile& reserve, const Environment& env) {
    try {
        return reserve.ensure();
    } catch (const Error&) {
        env.check_in_place(); // says more, where the whole store is gone
        throw;
    }
}

} // namespace

std::uint64_t LmdbStore::checked_growth(std::span<const OutgoingMessage> messages) {
    for (const OutgoingMessage& message : messages) {
        check_message(message);
    }
    return growth_of(messages);
}

void LmdbStore::make_room(std::uint64_t growth) {
    if (!ensure_reserve(reserve_, env_)) {
        check_free_pages(env_, growth);
    }
}

void LmdbStore::check_quota(WriteTxn& write, std::uint64_t growth) {
    const std::uint64_t quota = load_settings(write.txn(), write.env()).quota;
    const std::uint64_t usage = load_usage(write.txn(), write.env());
    if (usage + growth > quota) {
        throw FullError(Shortage::kQuota, "the queue manager's quota of " + std::to_string(quota) +
                                              " bytes is used up: drain its queues or raise the quota");
    }
}

void LmdbStore::put_chosen(const std::string& queue, std::span<const OutgoingMessage> messages, const Choice& choose) {
    make_room(checked_growth(messages));
    std::uint32_t id = 0;
    std::shared_ptr<MarkFile> its_mark;
    write(Need::kMayFail, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), queue, env_);
        const std::span<const OutgoingMessage> chosen = choose(write);
        if (chosen.empty()) {
            its_mark = nullptr;
            return; // a transaction that changes nothing costs no sync
        }
        check_quota(write, growth_of(chosen));
        id = record.id;
        its_mark = mark(id); // before the commit: nothing may fail after it
        for (const OutgoingMessage& message : chosen) {
            append_message(write, record, message);
        }
        save_queue(write, queue, record);
    });
    if (its_mark) {
        wake(id, *its_mark);
    }
}

void LmdbStore::put(const std::string& queue, std::span<const OutgoingMessage> messages) {
    put_chosen(queue, messages, [&](WriteTxn& /*none*/) { return messages; });
}

std::vector<bool> LmdbStore::put_once(const std::string& queue, std::span<const OutgoingMessage> messages,
                                      std::span<const MessageIdentity> identities, std::uint64_t remember) {
    const std::scoped_lock guard(taken_.mutex());
    std::vector<bool> put;
    std::vector<OutgoingMessage> chosen;
    try {
        put_chosen(queue, messages, [&](WriteTxn& write) {
            put = taken_.take(write, identities, remember);
            chosen.clear();
            for (std::size_t i = 0; i < messages.size(); ++i) {
                if (put[i]) {
                    chosen.push_back(messages[i]);
                }
            }
            return std::span<const OutgoingMessage>(chosen);
        });
    } catch (const UnknownOutcome&) {
        for (std::size_t i = 0; i < put.size(); ++i) {
            if (put[i]) {
                taken_.leave_open(identities[i]);
            }
        }
        throw;
    }
    taken_.settle(identities, put);
    return put;
}

void LmdbStore::wake(std::uint32_t queue, MarkFile& mark) const {
    if (mark.claim_wake_up()) {
        WakeFifo::wake(files_.fifo(queue));
    }
}

} // namespace kvr
