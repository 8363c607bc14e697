// SPDX-License-Identifier: MIT
// Changes to the table of messages within a transaction.
#include "store_lmdb/message_table.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "store/message_record.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/store_layout.h"

namespace kvr {

namespace {

constexpr std::size_t kMoveBytes = 4UL << 20;

/// Copies the queue's first message from `from` on. Returns its sequence, 0 for none.
std::uint64_t copy_first(WriteTxn& write, std::uint32_t queue, std::uint64_t from, std::string& record) {
    std::uint64_t found = 0;
    for_range(write.txn(), write.env(), queue, from, std::numeric_limits<std::uint64_t>::max(),
              [&](Cursor&, std::uint64_t sequence, std::string_view bytes) {
                  found = sequence;
                  record = bytes;
                  return false;
              });
    return found;
}

/// For messages that are gone.
void forget_given_back(WriteTxn& write, std::uint32_t queue, std::uint64_t first, std::uint64_t through) {
    MDB_stat table{};
    check_mdb(mdb_stat(write.txn(), write.env().given_back, &table), "look at the tables", write.env().folder());
    if (table.ms_entries == 0) {
        return;
    }
    const MessageKey start(queue, first);
    Cursor cursor(write.txn(), write.env().given_back, write.env());
    MDB_val key = to_val(start.view());
    MDB_val value{};
    for (bool found = cursor.get(key, value, MDB_SET_RANGE); found; found = cursor.get(key, value, MDB_NEXT)) {
        const std::uint64_t sequence = MessageKey::sequence_in(to_view(key), queue);
        if (sequence == 0 || sequence > through) {
            return;
        }
        cursor.erase();
    }
}

/// False, and nothing done, for a message that is refused, when `may_refuse`; otherwise its error is thrown.
bool append_changed(WriteTxn& write, QueueRecord& to, const std::string& record,
                    const std::function<std::string(std::string_view)>& change, bool may_refuse) {
    T_KAVRO_MD descriptor{};
    std::vector<std::string> attachments;
    std::string data;
    OutgoingMessage message{&descriptor, {}, {}};
    try {
        const MessageView view = decode_message(record);
        std::memcpy(&descriptor, view.descriptor, kDescriptorSize);
        for (std::string_view list = view.attachments; !list.empty();) {
            attachments.emplace_back(next_attachment(list));
        }
        data = change({view.data.data(), view.data.size()});
        message = {&descriptor, attachments, data};
        check_message(message);
    } catch (const Error&) {
        if (may_refuse) {
            return false;
        }
        throw;
    }
    append_message(write, to, message);
    return true;
}

} // namespace

std::uint64_t stored_size(std::size_t record_size) {
    constexpr std::size_t kPage = 4096;
    constexpr std::size_t kPageHeader = 16;
    constexpr std::size_t kNodeOverhead = 8 + 12 + 2; // node header, key, slot
    constexpr std::size_t kGreatestNode = (kPage - kPageHeader) / 2;
    const std::size_t node = record_size + kNodeOverhead;
    if (node <= kGreatestNode) {
        return kPage / ((kPage - kPageHeader) / node);
    }
    return (record_size + kPageHeader + kPage - 1) / kPage * kPage + kPage / 64; // its own pages and a reference
}

void append_message(WriteTxn& write, QueueRecord& queue, const OutgoingMessage& message) {
    const Environment& env = write.env();
    const MessageKey key(queue.id, queue.next_sequence);
    const std::size_t size = encoded_size(message);
    MDB_val key_val = to_val(key.view());
    MDB_val value{size, nullptr};
    // At the table's end, where the newest queue's messages go, appending fills the pages wholly.
    int result = mdb_put(write.txn(), env.messages, &key_val, &value, MDB_RESERVE | MDB_APPEND);
    if (result == MDB_KEYEXIST) {
        value = {size, nullptr};
        result = mdb_put(write.txn(), env.messages, &key_val, &value, MDB_RESERVE | MDB_NOOVERWRITE);
    }
    if (result != MDB_SUCCESS) {
        throw_mdb("put a message", env.folder(), result);
    }
    encode_message(message, static_cast<char*>(value.mv_data));
    save_usage(write, load_usage(write.txn(), env) + stored_size(size));
    ++queue.next_sequence;
    ++queue.depth;
    queue.bytes += message.data.size();
}

std::uint64_t erase_messages(WriteTxn& write, QueueRecord& queue, std::uint64_t first, std::uint64_t through,
                             EraseLimit limit) {
    std::uint64_t count = 0;
    std::uint64_t stored = 0;
    std::uint64_t last = first;
    for_range(write.txn(), write.env(), queue.id, first, through,
              [&](Cursor& cursor, std::uint64_t sequence, std::string_view record) {
                  last = sequence;
                  queue.bytes = less(queue.bytes, data_bytes(record));
                  stored += stored_size(record.size());
                  cursor.erase();
                  return ++count < limit.messages && stored < limit.bytes;
              });
    if (count > 0) {
        forget_given_back(write, queue.id, first, last);
        queue.depth = less(queue.depth, count);
        save_usage(write, less(load_usage(write.txn(), write.env()), stored));
    }
    return count;
}

Moved move_messages(WriteTxn& write, QueueRecord& from, QueueRecord& to, std::uint64_t position, std::uint64_t count,
                    const std::function<std::string(std::string_view)>& change) {
    Moved moved{0, position};
    std::uint64_t held = first_held(write.txn(), write.env(), from.id, position + 1);
    RangeWalk ranges(write.txn(), write.env(), from);
    std::string record; // a copy: the page that it lies on changes below
    for (std::size_t bytes = 0; moved.count < count;) {
        const std::uint64_t sequence = copy_first(write, from.id, moved.through + 1, record);
        if (sequence == 0) {
            return moved;
        }
        if (const KeptRange* range = ranges.at(sequence); range != nullptr && range->keeps(sequence)) {
            moved.through = range->through;
            continue;
        }
        if (sequence < held) {
            bytes += record.size();
            if ((moved.count > 0 && bytes > kMoveBytes) ||
                !append_changed(write, to, record, change, moved.count > 0)) {
                return moved;
            }
            forget_repeats(write, from, {sequence, sequence});
            erase_messages(write, from, sequence, sequence, {});
            ++moved.count;
        } else {
            held = first_held(write.txn(), write.env(), from.id, sequence + 1);
        }
        moved.through = sequence;
    }
    return moved;
}

std::pair<std::uint64_t, std::uint64_t> count_messages(MDB_txn* txn, const Environment& env, std::uint32_t queue,
                                                       UsedRange range) {
    std::pair<std::uint64_t, std::uint64_t> counted{0, 0};
    if (!range.empty()) {
        for_range(txn, env, queue, range.first, range.through, [&](Cursor&, std::uint64_t, std::string_view record) {
            ++counted.first;
            counted.second += data_bytes(record);
            return true;
        });
    }
    return counted;
}

std::uint64_t first_held(MDB_txn* txn, const Environment& env, std::uint32_t queue, std::uint64_t from) {
    const MessageKey start(queue, from);
    Cursor cursor(txn, env.held, env);
    MDB_val key = to_val(start.view());
    MDB_val value{};
    std::uint64_t sequence = 0;
    if (cursor.get(key, value, MDB_SET_RANGE)) {
        sequence = MessageKey::sequence_in(to_view(key), queue);
    }
    return sequence != 0 ? sequence : std::numeric_limits<std::uint64_t>::max();
}

std::uint32_t times_given_back(MDB_txn* txn, const Environment& env, const MessageKey& key) {
    std::uint32_t times = 0;
    const auto value = table_get(txn, env.given_back, key.view(), env);
    if (value && value->size() == sizeof times) {
        std::memcpy(&times, value->data(), sizeof times);
    }
    return times;
}

void count_given_back(WriteTxn& write, const MessageKey& key) {
    if (table_get(write.txn(), write.env().messages, key.view(), write.env())) {
        const std::uint32_t times = times_given_back(write.txn(), write.env(), key) + 1;
        table_put(write, write.env().given_back, key.view(), {reinterpret_cast<const char*>(&times), sizeof times});
    }
}

} // namespace kvr
