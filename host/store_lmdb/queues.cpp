// SPDX-License-Identifier: MIT
// Queues of the store: their definitions, and what an operator sees of them.
#include <algorithm>
#include <cerrno>
#include <limits>

#include <unistd.h>

#include "store/names.h"
#include "store/system_error.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/wake_fifo.h"

namespace kvr {

namespace {

constexpr std::size_t kMaxDescription = 255;
/// What one transaction of a purge deletes, at most or with its last message: it has room for so many changed pages,
/// and must fit a full disk's reserve with its list of the freed ones.
constexpr EraseLimit kPurgeStep{.messages = 4096, .bytes = 8ULL << 20};

void check_description(const std::string& description) {
    if (description.size() > kMaxDescription) {
        throw Error(Errc::kTooLong,
                    "a queue's description takes at most " + std::to_string(kMaxDescription) + " bytes");
    }
}

/// The lock of a queue that nobody drains, for as long as it is being deleted.
class DeletionLock {
  public:
    DeletionLock(DrainLocks& locks, const std::string& name, std::uint32_t queue) : locks_(locks), queue_(queue) {
        if (const pid_t holder = locks_.acquire(queue_); holder != 0) {
            throw Error(Errc::kBusy, process_text(holder) + " takes messages from queue '" + name + "': stop it first");
        }
    }
    ~DeletionLock() { locks_.release(queue_); }
    DeletionLock(const DeletionLock&) = delete;
    DeletionLock& operator=(const DeletionLock&) = delete;

  private:
    DrainLocks& locks_;
    std::uint32_t queue_;
};

} // namespace

void LmdbStore::queue_define(const std::string& name, const std::string& description) {
    check_name("queue", name, kMaxQueueName);
    check_description(description);
    write(Need::kMayFail, [&](WriteTxn& write) {
        if (find_queue(write.txn(), name, env_)) {
            throw Error(Errc::kExists, "queue '" + name + "' exists already");
        }
        QueueRecord record;
        record.id = next_queue_id(write);
        record.description = description;
        // Made before the queue is: whoever works with it later finds its files on a full disk too. And made anew: a
        // store that was put back from a backup gives an id again, whose first queue may have left its files.
        if (const int failed = remove_files(record.id); failed != 0) {
            throw_system("remove what is left of an earlier queue in", files_.queues(), failed);
        }
        WakeFifo::create(files_.fifo(record.id));
        MarkFile(files_.mark(record.id), identity_.id, record.id); // kept open only once the queue is there
        save_queue(write, name, record);
    });
}

void LmdbStore::queue_set(const std::string& name, const std::string& description) {
    check_description(description);
    write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), name, env_);
        record.description = description;
        save_queue(write, name, record);
    });
}

void LmdbStore::queue_delete(const std::string& name, bool purge) {
    const std::uint32_t id = [&] {
        Reader reader(env_);
        const ReadScope scope(reader);
        return load_queue(reader.txn(), name, env_).id;
    }();
    const DeletionLock lock(drain_locks_, name, id);
    for (bool done = false; !done;) {
        erase_step(name, id, purge, done);
    }
    remove_files(id); // else the next queue of that id does it
}

/// Returns 0 or the error of the one that cannot be removed.
int LmdbStore::remove_files(std::uint32_t id) {
    {
        const std::scoped_lock guard(marks_mutex_);
        marks_.erase(id);
        claims_.erase(id);
    }
    int failed = 0;
    for (const std::filesystem::path& file : {files_.mark(id), files_.claims(id), files_.fifo(id)}) {
        if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
            failed = errno;
        }
    }
    return failed;
}

/// Deletes some messages of a queue, or the queue itself once it is empty.
void LmdbStore::erase_step(const std::string& name, std::uint32_t id, bool purge, bool& done) {
    constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max();
    const std::shared_ptr<MarkFile> used_mark = mark(id);
    write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), name, env_);
        if (record.id != id) {
            throw Error(Errc::kBusy, "queue '" + name + "' was defined anew meanwhile: try again");
        }
        if (!purge) {
            // What a killed drainer used up is not on the queue any more.
            const UsedRange used = used_mark->used(record.generation);
            if (!used.empty()) {
                erase_messages(write, record, used.first, used.through, {});
            }
            if (record.depth > 0) {
                throw Error(Errc::kBusy, "queue '" + name + "' holds " + std::to_string(record.depth) +
                                             " messages: drain it, or purge it with its messages");
            }
        }
        if (drop_ranges(write, record) ||
            (erase_messages(write, record, 1, kLast, kPurgeStep) > 0 && record.depth > 0)) {
            ++record.generation;
            save_queue(write, name, record);
            done = false;
            return;
        }
        for (std::uint64_t at = 0; (at = first_held(write.txn(), env_, id, at)) != kLast; ++at) {
            table_erase(write, env_.held, MessageKey(id, at).view());
        }
        table_erase(write, env_.queues, name);
        done = true;
    });
}

LmdbStore::Snapshot LmdbStore::snapshot(Reader& reader, const std::string& queue) {
    // The caller's transaction shows the queue at one moment, its mark moves on. A mark of a later generation means
    // that the group was deleted after that moment: look again from now.
    constexpr int kTries = 100;
    for (int attempt = 1;; ++attempt) {
        Snapshot result{.record = load_queue(reader.txn(), queue, env_), .used = {}, .in_hand = 0};
        const std::shared_ptr<MarkFile> its_mark = mark(result.record.id);
        const std::uint64_t in_hand = its_mark->in_hand();
        result.used = its_mark->used(result.record.generation);
        const std::uint64_t generation = its_mark->generation();
        if (generation <= result.record.generation || attempt == kTries) {
            result.in_hand = in_hand;
            return result;
        }
        reader.end();
        reader.begin();
    }
}

QueueInfo LmdbStore::info_of(MDB_txn* txn, const std::string& name, const Snapshot& now) {
    const auto [used, used_bytes] = count_messages(txn, env_, now.record.id, now.used);
    const pid_t drainer = drain_locks_.holder(now.record.id);
    const RangeSums ranges = sum_ranges(txn, env_, now.record);
    const auto range = ranges.repeats > 0 ? find_range(txn, env_, now.record.id, now.used.first) : std::nullopt;
    const bool again = range && !range->is_kept() && range->contains(now.used.first);
    return {.name = name,
            .description = now.record.description,
            .depth = now.record.depth - std::min(now.record.depth, used),
            .bytes = now.record.bytes - std::min(now.record.bytes, used_bytes),
            .held = now.record.held,
            .drained_by = drainer != 0 ? std::optional(local_owner(drainer)) : std::nullopt,
            .kept = now.record.kept,
            .kept_bytes = line_bytes(now.record.kept, now.record.kept_data),
            .suspected = ranges.suspected,
            .repeats = again ? less(ranges.repeats, used) : ranges.repeats};
}

QueueInfo LmdbStore::queue_info(const std::string& name) {
    Reader reader(env_);
    const ReadScope scope(reader);
    const Snapshot now = snapshot(reader, name);
    return info_of(reader.txn(), name, now);
}

std::vector<QueueInfo> LmdbStore::queues() {
    std::vector<std::string> names;
    {
        Reader reader(env_);
        const ReadScope scope(reader);
        Cursor cursor(reader.txn(), env_.queues, env_);
        MDB_val key{};
        MDB_val value{};
        for (bool found = cursor.get(key, value, MDB_FIRST); found; found = cursor.get(key, value, MDB_NEXT)) {
            names.emplace_back(to_view(key));
        }
    }
    std::vector<QueueInfo> infos;
    for (const std::string& name : names) {
        try {
            infos.push_back(queue_info(name));
        } catch (const Error& error) {
            if (error.code() != Errc::kNotFound) { // deleted meanwhile
                throw;
            }
        }
    }
    return infos;
}

} // namespace kvr
