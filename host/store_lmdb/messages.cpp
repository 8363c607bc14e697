// SPDX-License-Identifier: MIT
// Browses and releases of messages.
#include <algorithm>
#include <cstring>
#include <shared_mutex>
#include <system_error>

#include "store/message_record.h"
#include "store_lmdb/getter.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/taker.h"

namespace kvr {

namespace {

/// What a browse copies out in one transaction: so many messages, or the one that exceeds so many bytes.
constexpr std::size_t kBrowseMessages = 512;
constexpr std::size_t kBrowseBytes = 256UL << 10;
constexpr std::uint64_t kNowhere = UINT64_MAX;

StoredMessage to_stored(std::uint64_t sequence, const MessageView& view) {
    StoredMessage message{};
    message.sequence = sequence;
    std::memcpy(&message.descriptor, view.descriptor, kDescriptorSize);
    std::string_view list = view.attachments;
    while (!list.empty()) {
        message.attachments.emplace_back(next_attachment(list));
    }
    message.data = view.data;
    return message;
}

} // namespace

/// Where, from this place on, messages may be that are to be shown; kNowhere: nowhere.
std::uint64_t LmdbStore::next_shown(RangeWalk& ranges, Shown shown, std::uint64_t place) {
    for (;;) {
        const KeptRange* const range = ranges.at(place);
        if (range == nullptr) {
            return shown == Shown::kOnQueue ? place : kNowhere;
        }
        if (range->keeps(place) == (shown == Shown::kKept)) {
            return place;
        }
        place = range->contains(place) ? range->through + 1 : range->first;
    }
}

/// Sequences that somebody has reserved.
std::set<std::uint64_t> LmdbStore::in_hand(const Snapshot& now) {
    if (drain_locks_.holder(now.record.id) == 0) {
        return {};
    }
    std::error_code none;
    auto reserved = std::filesystem::exists(files_.claims(now.record.id), none) ? claims(now.record.id)->reserved()
                                                                                : std::set<std::uint64_t>{};
    reserved.insert(now.in_hand);
    return reserved;
}

std::vector<LmdbStore::Copied> LmdbStore::copy_block(Reader& reader, const std::string& queue, Shown shown,
                                                     std::uint64_t& from, std::size_t limit) {
    const ReadScope scope(reader);
    const Snapshot now = snapshot(reader, queue);
    const std::uint32_t id = now.record.id;
    const std::set<std::uint64_t> reserved = in_hand(now);
    std::vector<Copied> block;
    RangeWalk ranges(reader.txn(), env_, now.record);
    Cursor cursor(reader.txn(), env_.messages, env_);
    MDB_val key{};
    MDB_val value{};
    const auto seek = [&] {
        const MessageKey start(id, from);
        key = to_val(start.view());
        return from != kNowhere && cursor.get(key, value, MDB_SET_RANGE);
    };
    std::size_t bytes = 0;
    from = now.used.contains(from) ? now.used.through + 1 : from;
    for (bool found = seek(); found;) {
        const std::uint64_t sequence = MessageKey::sequence_in(to_view(key), id);
        if (sequence == 0 || block.size() >= limit || bytes > kBrowseBytes) {
            break;
        }
        from = next_shown(ranges, shown, sequence);
        if (from != sequence) {
            found = seek();
            continue;
        }
        from = sequence + 1;
        if (!now.used.contains(sequence)) {
            Copied& copied = block.emplace_back();
            copied.sequence = sequence;
            copied.in_hand = reserved.contains(sequence);
            copied.given_back = times_given_back(reader.txn(), env_, {id, sequence});
            copied.record = to_view(value);
            bytes += value.mv_size;
            if (now.record.held > 0) {
                copied.held = table_get(reader.txn(), env_.held, MessageKey(id, sequence).view(), env_);
            }
            if (const KeptRange* const range = ranges.at(sequence); range != nullptr && range->contains(sequence)) {
                copied.range = *range;
            }
        }
        found = cursor.get(key, value, MDB_NEXT);
    }
    return block;
}

void LmdbStore::show(const std::string& queue, Shown shown, std::uint64_t from,
                     const std::function<bool(const StoredMessage&)>& visit) {
    // No transaction while the visitor runs: it may be slow, or use the store. Blocks begin small for a short look.
    Reader reader(env_);
    std::size_t read = 0;
    for (std::size_t limit = 1;; limit = std::min(2 * limit, kBrowseMessages)) {
        const std::vector<Copied> block = copy_block(reader, queue, shown, from, limit);
        for (const Copied& copied : block) {
            StoredMessage message = to_stored(copied.sequence, decode_message(copied.record));
            message.in_hand = copied.in_hand;
            message.given_back = copied.given_back;
            message.held = copied.held.has_value();
            message.held_reason = copied.held.value_or("");
            message.repeat = copied.range && !copied.range->is_kept();
            if (copied.range && copied.range->is_kept()) {
                message.kept = {copied.range->used_at, copied.range->state == RangeState::kSuspected};
            }
            if (!visit(message)) {
                return;
            }
            read += copied.record.size();
        }
        if (block.empty()) {
            return;
        }
        if (read > kReadBeforeDrop) {
            const std::shared_lock lock(env_.map_lock());
            env_.drop_pages();
            read = 0;
        }
    }
}

void LmdbStore::browse(const std::string& queue, std::uint64_t from,
                       const std::function<bool(const StoredMessage&)>& visit) {
    show(queue, Shown::kOnQueue, from, visit);
}

void LmdbStore::browse_kept(const std::string& queue, std::uint64_t from,
                            const std::function<bool(const StoredMessage&)>& visit) {
    show(queue, Shown::kKept, from, visit);
}

std::uint64_t LmdbStore::release_held(const std::string& queue) {
    std::uint64_t released = 0;
    std::uint32_t id = 0;
    std::shared_ptr<MarkFile> its_mark;
    write(Need::kMust, [&](WriteTxn& write) {
        released = 0;
        QueueRecord record = load_queue(write.txn(), queue, env_);
        id = record.id;
        its_mark = mark(id);
        constexpr std::uint64_t kNone = UINT64_MAX;
        for (std::uint64_t at = 0; (at = first_held(write.txn(), env_, id, at)) != kNone; ++at) {
            table_erase(write, env_.held, MessageKey(id, at).view());
            ++released;
        }
        record.held = 0;
        ++record.releases;
        save_queue(write, queue, record);
    });
    wake(id, *its_mark);
    return released;
}

std::uint64_t LmdbStore::replay(const std::string& queue, std::span<const Places> places) {
    std::uint64_t count = 0;
    std::uint32_t id = 0;
    std::shared_ptr<MarkFile> its_mark;
    write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), queue, env_);
        id = record.id;
        its_mark = mark(id);
        count = 0;
        for (const Places& each : places) {
            count += hand_out_again(write, record, each);
        }
        save_queue(write, queue, record);
    });
    wake(id, *its_mark);
    return count;
}

std::unique_ptr<Getter> LmdbStore::drain(const std::string& queue, const DrainOptions& options) {
    return std::make_unique<LmdbGetter>(shared_from_this(), queue, options);
}

std::unique_ptr<Taker> LmdbStore::take_from(const std::string& queue) {
    return std::make_unique<LmdbTaker>(shared_from_this(), queue);
}

} // namespace kvr
