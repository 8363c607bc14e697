// SPDX-License-Identifier: MIT
// Units of work: puts on several queues and the end of messages that were taken, in one transaction.
#include <algorithm>
#include <map>
#include <string>

#include "store/message_record.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/taker.h"

namespace kvr {

namespace {

/// The queues that a transaction changes; each is read and saved once.
class ChangedQueues {
  public:
    explicit ChangedQueues(WriteTxn& write) : write_(write) {}

    QueueRecord& at(const std::string& name) {
        const auto known = records_.find(name);
        return known != records_.end()
                   ? known->second
                   : records_.emplace(name, load_queue(write_.txn(), name, write_.env())).first->second;
    }
    void save() {
        for (const auto& [name, record] : records_) {
            save_queue(write_, name, record);
        }
    }

  private:
    WriteTxn& write_;
    std::map<std::string, QueueRecord> records_;
};

/// A taker of this store that has reserved them.
LmdbTaker& checked(const LmdbStore& store, const UnitTake& take) {
    auto* const taker = dynamic_cast<LmdbTaker*>(take.taker);
    if (taker == nullptr || &taker->store() != &store ||
        !std::all_of(take.sequences.begin(), take.sequences.end(), [&](auto each) { return taker->has(each); })) {
        throw Error(Errc::kInvalid, "a unit of work ends what its takers have reserved, and nothing else");
    }
    return *taker;
}

/// Deletes messages that were taken, those that lie together at once.
void erase_taken(WriteTxn& write, QueueRecord& queue, std::span<const std::uint64_t> sequences) {
    for (auto first = sequences.begin(); first != sequences.end();) {
        auto last = first;
        while (last + 1 != sequences.end() && *(last + 1) == *last + 1) {
            ++last;
        }
        forget_repeats(write, queue, {*first, *last});
        if (erase_messages(write, queue, *first, *last, {}) != *last - *first + 1) {
            throw Error(Errc::kDamaged, "a message that was taken is not on its queue any more: open the queue "
                                        "manager anew, and look after its folder");
        }
        first = last + 1;
    }
}

} // namespace

void LmdbStore::commit(std::span<const UnitPut> puts, std::span<const UnitTake> takes) {
    std::uint64_t growth = 0;
    for (const UnitPut& put : puts) {
        growth += checked_growth(put.messages);
    }
    for (const UnitTake& take : takes) {
        static_cast<void>(checked(*this, take));
    }
    if (growth > 0) {
        make_room(growth);
    }
    std::map<std::uint32_t, std::shared_ptr<MarkFile>> marks;
    write(growth > 0 ? Need::kMayFail : Need::kMust, [&](WriteTxn& write) {
        ChangedQueues queues(write);
        for (const UnitTake& take : takes) {
            erase_taken(write, queues.at(checked(*this, take).queue()), take.sequences);
        }
        if (growth > 0) {
            check_quota(write, growth);
        }
        marks.clear();
        for (const UnitPut& put : puts) {
            QueueRecord& queue = queues.at(put.queue);
            marks[queue.id] = mark(queue.id); // before the commit: nothing may fail after it
            for (const OutgoingMessage& message : put.messages) {
                append_message(write, queue, message);
            }
        }
        queues.save();
    });
    for (const UnitTake& take : takes) {
        checked(*this, take).settle(take.sequences);
    }
    for (const auto& [queue, its_mark] : marks) {
        wake(queue, *its_mark);
    }
}

} // namespace kvr
