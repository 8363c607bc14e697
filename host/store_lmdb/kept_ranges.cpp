// SPDX-License-Identifier: MIT
#include "store_lmdb/kept_ranges.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "kavro_chl.h"
#include "kavro_queue.h"
#include "store/message_record.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/store_layout.h"
#include "store_lmdb/used_group.h"

namespace kvr {

namespace {

/// What one transaction deletes, beside what it does: as much as comes with a group of used ones, and as much again.
class Deletions {
  public:
    void count(const KeptRange& range) {
        ++ranges_;
        messages_ += range.messages;
        data_ += range.data;
    }
    [[nodiscard]] bool none() const { return ranges_ == 0; }
    [[nodiscard]] bool enough() const {
        constexpr std::uint64_t kRanges = 2048;
        return ranges_ >= kRanges || messages_ > UsedGroup::kMessages || data_ > UsedGroup::kBytes;
    }

  private:
    std::uint64_t ranges_ = 0;
    std::uint64_t messages_ = 0;
    std::uint64_t data_ = 0;
};

/// A range's record in the machine's byte order. Its last sequence is in the key.
struct RangePart {
    std::uint64_t first;
    std::uint64_t messages;
    std::uint64_t data;
    std::int64_t used_at;
    std::uint64_t use;
    std::uint64_t state;
};

KeptRange decode_range(std::uint64_t through, std::string_view value) {
    RangePart part{};
    if (value.size() != sizeof part) {
        throw Error(Errc::kDamaged, "a record of kept messages has a wrong length: restore the store from a copy");
    }
    std::memcpy(&part, value.data(), sizeof part);
    return {part.first, through, static_cast<RangeState>(part.state), part.messages, part.data, part.used_at, part.use};
}

void save_range(WriteTxn& write, std::uint32_t queue, const KeptRange& range) {
    const RangePart part{range.first,   range.messages, range.data,
                         range.used_at, range.use,      static_cast<std::uint64_t>(range.state)};
    std::string value(sizeof part, '\0');
    std::memcpy(value.data(), &part, sizeof part);
    table_put(write, write.env().kept, MessageKey(queue, range.through).view(), value);
}

void erase_range(WriteTxn& write, std::uint32_t queue, const KeptRange& range) {
    table_erase(write, write.env().kept, MessageKey(queue, range.through).view());
}

/// Calls `each(range)` for the queue's ranges in rising order while it returns true.
template <class Each>
void for_ranges(MDB_txn* txn, const Environment& env, std::uint32_t queue, Each each) {
    const MessageKey start(queue, 1);
    Cursor cursor(txn, env.kept, env);
    MDB_val key = to_val(start.view());
    MDB_val value{};
    for (bool found = cursor.get(key, value, MDB_SET_RANGE); found; found = cursor.get(key, value, MDB_NEXT)) {
        const std::uint64_t through = MessageKey::sequence_in(to_view(key), queue);
        if (through == 0 || !each(decode_range(through, to_view(value)))) {
            return;
        }
    }
}

/// Leaves in `range` what lies before the sequence, and returns the rest, which can be empty.
KeptRange split_off(WriteTxn& write, std::uint32_t queue, KeptRange& range, std::uint64_t sequence) {
    KeptRange rest = range;
    const auto [messages, data] =
        count_messages(write.txn(), write.env(), queue, {.first = range.first, .through = sequence - 1});
    rest.first = sequence;
    rest.messages = less(range.messages, messages);
    rest.data = less(range.data, data);
    range.through = sequence - 1;
    range.messages = messages;
    range.data = data;
    return rest;
}

/// The part of a range that these places hold, as a range of its own in the table; what lies before and behind it stays
/// as it was. Nothing when there is no message in it.
std::optional<KeptRange> single_out(WriteTxn& write, std::uint32_t queue, KeptRange range, Places places) {
    erase_range(write, queue, range);
    if (places.last < range.through) {
        const KeptRange behind = split_off(write, queue, range, places.last + 1);
        if (behind.messages > 0) {
            save_range(write, queue, behind);
        }
    }
    if (places.first > range.first) {
        const KeptRange rest = split_off(write, queue, range, places.first);
        if (range.messages > 0) {
            save_range(write, queue, range);
        }
        range = rest;
    }
    if (range.messages == 0) {
        return std::nullopt;
    }
    save_range(write, queue, range);
    return range;
}

void give_back(WriteTxn& write, QueueRecord& queue, KeptRange range) {
    range.state = RangeState::kAgain;
    save_range(write, queue.id, range);
    queue.depth += range.messages;
    queue.bytes += range.data;
    queue.kept = less(queue.kept, range.messages);
    queue.kept_data = less(queue.kept_data, range.data);
    ++queue.releases; // the drainer looks from the queue's beginning
}

void erase_kept(WriteTxn& write, QueueRecord& queue, const KeptRange& range) {
    QueueRecord counted; // they are in no depth
    counted.id = queue.id;
    erase_messages(write, counted, range.first, range.through, {});
    erase_range(write, queue.id, range);
    queue.kept = less(queue.kept, range.messages);
    queue.kept_data = less(queue.kept_data, range.data);
    queue.trimmed = std::max(queue.trimmed, range.use);
    queue.trimmed_at = std::max(queue.trimmed_at, range.used_at);
}

/// The one that was used first among the first ranges of the queue: places and uses go together but for what was put
/// back and used again.
std::optional<KeptRange> first_kept(MDB_txn* txn, const Environment& env, std::uint32_t queue) {
    constexpr int kLookedAt = 64;
    std::optional<KeptRange> first;
    for_ranges(txn, env, queue, [&, looked_at = 0](const KeptRange& range) mutable {
        if (range.is_kept() && (!first || range.use < first->use)) {
            first = range;
        }
        return ++looked_at < kLookedAt || !first;
    });
    return first;
}

bool is_too_old(const KeptRange& range, const KeepLimits& limits, std::int64_t now) {
    return limits.time.count() == 0 || range.used_at < now - limits.time.count();
}

/// Whether enough is kept without it.
bool is_too_much(const KeptRange& range, const KeepLimits& limits, const QueueRecord& queue) {
    return line_bytes(less(queue.kept, range.messages), less(queue.kept_data, range.data)) >= limits.bytes;
}

/// The first message of the range behind which no more than `bytes` of it were used; the next sequence after the range
/// when there is none.
std::uint64_t first_within(WriteTxn& write, std::uint32_t queue, const KeptRange& range, std::uint64_t bytes) {
    std::uint64_t behind = line_bytes(range.messages, range.data);
    std::uint64_t found = range.through + 1;
    for_range(write.txn(), write.env(), queue, range.first, range.through,
              [&](Cursor&, std::uint64_t sequence, std::string_view record) {
                  behind = less(behind, line_bytes(1, data_bytes(record)));
                  found = behind <= bytes ? sequence : found;
                  return behind > bytes;
              });
    return found;
}

/// Kept ranges of the last line, the last used one first.
std::vector<KeptRange> of_last_line(WriteTxn& write, const QueueRecord& queue) {
    std::vector<KeptRange> ranges;
    for_ranges(write.txn(), write.env(), queue.id, [&](const KeptRange& range) {
        if (range.state == RangeState::kKept && range.use >= queue.settled) {
            ranges.push_back(range);
        }
        return true;
    });
    std::ranges::sort(ranges, std::greater{}, &KeptRange::use);
    return ranges;
}

void add_to_loss(Loss& loss, const KeptRange& range) {
    loss.messages += range.messages;
    loss.bytes += line_bytes(range.messages, range.data);
    loss.first = loss.first == 0 ? range.first : std::min(loss.first, range.first);
    loss.last = std::max(loss.last, range.through);
}

} // namespace

std::uint64_t line_bytes(std::uint64_t messages, std::uint64_t data) {
    constexpr std::uint64_t kFrame = sizeof(T_KAVRO_CHL_HDR) + sizeof(T_KAVRO_CHL_MD);
    return data + messages * (kFrame - sizeof(T_KAVRO_HDR_XMITQ)); // which stays behind
}

std::optional<KeptRange> find_range(MDB_txn* txn, const Environment& env, std::uint32_t queue, std::uint64_t sequence) {
    const MessageKey start(queue, sequence);
    Cursor cursor(txn, env.kept, env);
    MDB_val key = to_val(start.view());
    MDB_val value{};
    if (!cursor.get(key, value, MDB_SET_RANGE)) {
        return std::nullopt;
    }
    const std::uint64_t through = MessageKey::sequence_in(to_view(key), queue);
    return through != 0 ? std::optional(decode_range(through, to_view(value))) : std::nullopt;
}

RangeWalk::RangeWalk(MDB_txn* txn, const Environment& env, const QueueRecord& queue)
    : txn_(txn), env_(env), queue_(queue.id), ended_(!queue.has_ranges()) {}

const KeptRange* RangeWalk::at(std::uint64_t sequence) {
    if (!ended_ && (!range_ || sequence > range_->through)) {
        range_ = find_range(txn_, env_, queue_, sequence);
        ended_ = !range_;
    }
    return range_ ? &*range_ : nullptr;
}

void begin_keeping(WriteTxn& write, QueueRecord& queue) {
    raise_format(write, kStoreVersion);
    queue.keeping = true;
    queue.next_use = std::max<std::uint64_t>(queue.next_use, 1);
}

void keep_messages(WriteTxn& write, QueueRecord& queue, const UsedMessages& used) {
    forget_repeats(write, queue, used.range);
    KeptRange range{used.range.first, used.range.through, RangeState::kKept, used.messages,
                    used.data,        used.used_at,       queue.next_use++};
    const auto before = find_range(write.txn(), write.env(), queue.id, range.first - 1);
    if (before && before->through + 1 == range.first && before->state == RangeState::kKept &&
        before->use >= queue.settled && before->used_at == range.used_at &&
        before->messages + range.messages <= UsedGroup::kMessages && before->data + range.data <= UsedGroup::kBytes) {
        erase_range(write, queue.id, *before);
        range.first = before->first;
        range.messages += before->messages;
        range.data += before->data;
    }
    save_range(write, queue.id, range);
    queue.depth = less(queue.depth, used.messages);
    queue.bytes = less(queue.bytes, used.data);
    queue.kept += used.messages;
    queue.kept_data += used.data;
}

void forget_repeats(WriteTxn& write, QueueRecord& queue, UsedRange range) {
    if (!queue.has_ranges()) {
        return;
    }
    for (std::uint64_t at = range.first;;) {
        const auto found = find_range(write.txn(), write.env(), queue.id, at);
        if (!found || found->first > range.through) {
            return;
        }
        at = found->through + 1;
        if (found->state == RangeState::kAgain) {
            if (const auto part = single_out(write, queue.id, *found, {range.first, range.through})) {
                erase_range(write, queue.id, *part);
            }
        }
    }
}

void trim_kept(WriteTxn& write, QueueRecord& queue, const KeepLimits& limits, std::int64_t now) {
    Deletions deletions;
    while (!deletions.enough()) {
        const auto range = queue.kept > 0 ? first_kept(write.txn(), write.env(), queue.id) : std::nullopt;
        if (!range || (!is_too_old(*range, limits, now) && !is_too_much(*range, limits, queue))) {
            break;
        }
        erase_kept(write, queue, *range);
        deletions.count(*range);
    }
}

bool has_aged(MDB_txn* txn, const Environment& env, std::uint32_t queue, const KeepLimits& limits, std::int64_t now) {
    const auto range = first_kept(txn, env, queue);
    return range && is_too_old(*range, limits, now);
}

bool drop_ranges(WriteTxn& write, QueueRecord& queue) {
    Deletions deletions;
    while (!deletions.enough()) {
        const auto range = find_range(write.txn(), write.env(), queue.id, 1);
        if (!range) {
            break;
        }
        if (range->is_kept()) {
            erase_kept(write, queue, *range);
            deletions.count(*range);
        } else {
            erase_range(write, queue.id, *range);
        }
    }
    return !deletions.none();
}

Loss suspect(WriteTxn& write, QueueRecord& queue, const LossWindow& window, bool repeat, std::int64_t lost_at) {
    Loss loss;
    const std::vector<KeptRange> ranges = of_last_line(write, queue);
    const std::int64_t end = lost_at == 0 && !ranges.empty() ? ranges.front().used_at : lost_at;
    const auto in_time = [&](std::int64_t used_at) {
        return window.time.count() == 0 || used_at >= end - window.time.count();
    };
    bool whole = true; // nothing within the window was left out so far
    std::uint64_t behind = 0;
    for (const KeptRange& range : ranges) {
        whole = whole && behind <= window.bytes && in_time(range.used_at);
        if (!whole) {
            break;
        }
        std::optional<KeptRange> part = range;
        if (behind + line_bytes(range.messages, range.data) > window.bytes) {
            const std::uint64_t first = first_within(write, queue.id, range, window.bytes - behind);
            part = single_out(write, queue.id, range, {first, range.through});
            whole = false;
        }
        behind += line_bytes(range.messages, range.data);
        if (part) {
            add_to_loss(loss, *part);
            part->state = RangeState::kSuspected;
            save_range(write, queue.id, *part);
            if (repeat) {
                give_back(write, queue, *part);
            }
        }
    }
    loss.cut_short = whole && behind <= window.bytes && queue.trimmed >= std::max<std::uint64_t>(queue.settled, 1) &&
                     in_time(queue.trimmed_at);
    queue.settled = queue.next_use;
    return loss;
}

std::uint64_t hand_out_again(WriteTxn& write, QueueRecord& queue, Places places) {
    std::uint64_t count = 0;
    for (std::uint64_t at = std::max<std::uint64_t>(places.first, 1);;) {
        const auto found = at <= places.last ? find_range(write.txn(), write.env(), queue.id, at) : std::nullopt;
        if (!found || found->first > places.last) {
            return count;
        }
        at = found->through + 1;
        const auto part = found->is_kept() ? single_out(write, queue.id, *found, places) : std::nullopt;
        if (part) {
            give_back(write, queue, *part);
            count += part->messages;
        }
    }
}

RangeSums sum_ranges(MDB_txn* txn, const Environment& env, const QueueRecord& queue) {
    RangeSums sums;
    if (queue.has_ranges()) {
        for_ranges(txn, env, queue.id, [&](const KeptRange& range) {
            if (range.state == RangeState::kSuspected) {
                add_to_loss(sums.suspected, range);
            }
            sums.repeats += range.state == RangeState::kAgain ? range.messages : 0;
            return true;
        });
    }
    return sums;
}

} // namespace kvr
