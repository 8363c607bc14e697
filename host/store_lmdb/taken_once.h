// SPDX-License-Identifier: MIT
// What put_once remembers: identities of the messages that it took last, in the table `taken`. Each put appends its own
// behind the others', in a few records with numbers that count up, and deletes about as many of the oldest: pages are
// written one after the other. A table that is ordered by identity would change a page for each message.
//
// To be searched they are also in memory, which follows the table: within a transaction it first takes in what others,
// or this process itself, appended since, and drops what was deleted. So whatever became of a transaction, memory never
// knows more than the store.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <span>
#include <vector>

#include "store/keep.h"
#include "store_lmdb/identity_ring.h"
#include "store_lmdb/transaction.h"

namespace kvr {

class TakenOnce {
  public:
    /// Held by a thread from before its transaction until after it.
    std::mutex& mutex() { return mutex_; }
    /// Which of these were not taken yet; each is so once. Remembers them in this transaction, and deletes the oldest
    /// as far as `remember` others stay, in steps where that are many.
    std::vector<bool> take(WriteTxn& write, std::span<const MessageIdentity> identities, std::uint64_t remember);

    /// It is not known whether a transaction happened in which this one was new.
    void leave_open(const MessageIdentity& identity) { open_.insert(identity); }
    /// After a transaction: what was left open and turned out to have been put then is put, for this once.
    void settle(std::span<const MessageIdentity> identities, std::vector<bool>& put);

  private:
    void follow(MDB_txn* txn, Environment& env);
    void load_from(Cursor& cursor, Environment& env);
    void add_record(std::string_view record);
    void remember_these(WriteTxn& write, std::span<const MessageIdentity> identities, std::uint64_t remember);
    void clear();

    std::mutex mutex_;
    IdentityRing known_;
    std::deque<std::uint8_t> counts_; ///< of each record in memory, the oldest first
    std::uint64_t first_ = 1;         ///< number of the oldest
    std::set<MessageIdentity> open_;
};

} // namespace kvr
