// SPDX-License-Identifier: MIT
#include "store_lmdb/used_group.h"

#include <ctime>
#include <tuple>

#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/message_table.h"

namespace kvr {

namespace {

/// While it lives, commits flush late: half the cost. A power loss can then undo the last one, never damage the store.
/// Right for deletes of used messages, which a power loss may repeat anyway.
class LateFlush {
  public:
    explicit LateFlush(Environment& env) : env_(env) { env_.set_late_flush(true); }
    ~LateFlush() { env_.set_late_flush(false); }
    LateFlush(const LateFlush&) = delete;
    LateFlush& operator=(const LateFlush&) = delete;

  private:
    Environment& env_;
};

} // namespace

UsedGroup::UsedGroup(LmdbStore& store, const std::string& queue, MarkFile& mark, const QueueRecord& record,
                     const DrainOptions& options)
    : store_(store), queue_(queue), mark_(mark), generation_(record.generation), options_(options),
      keeps_(options.keeps()), used_(mark.used(record.generation)), counted_(used_.empty()) {
    if (used_.empty()) {
        mark_.begin_group(generation_, keeps_);
    } else {
        keeps_ = mark_.is_kept() &&
                 (!options.keep || keeps_); // as its drainer would have done, unless nothing is to be kept
    }
    go_on();
}

void UsedGroup::add(std::uint64_t sequence, std::uint64_t bytes) {
    if (used_.empty()) {
        used_.first = sequence;
    }
    used_.through = sequence;
    if (keeps_) {
        mark_.set_used_at(std::time(nullptr));
    }
    mark_.set_used(used_);
    mark_.set_in_hand(0);
    ++messages_;
    data_ += bytes;
    --messages_left_;
    bytes_left_ -= bytes;
}

bool UsedGroup::has_room(std::uint64_t bytes) const {
    return used_.empty() || (messages_left_ > 0 && bytes <= bytes_left_);
}

/// What becomes of the group's messages.
void UsedGroup::settle(WriteTxn& write, QueueRecord& record) {
    if (!keeps_) {
        forget_repeats(write, record, used_);
        erase_messages(write, record, used_.first, used_.through, {});
        return;
    }
    UsedMessages used{.range = used_, .messages = messages_, .data = data_, .used_at = mark_.used_at()};
    if (!counted_) {
        std::tie(used.messages, used.data) = count_messages(write.txn(), write.env(), record.id, used_);
    }
    keep_messages(write, record, used);
}

void UsedGroup::finish(const std::function<void(WriteTxn&, QueueRecord&)>& extra) {
    const std::int64_t now = std::time(nullptr);
    store_.write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), queue_, write.env());
        // Another generation: an earlier try of unknown outcome did it.
        if (!used_.empty() && record.generation == generation_) {
            settle(write, record);
        }
        if (extra) {
            extra(write, record);
        }
        if (options_.keep && trims_) {
            trim_kept(write, record, *options_.keep, now);
        }
        record.generation = generation_ + 1;
        save_queue(write, queue_, record);
    });
    keeps_ = options_.keeps();
    mark_.begin_group(++generation_, keeps_);
    used_ = {};
    messages_ = 0;
    data_ = 0;
    counted_ = true;
    go_on();
}

void UsedGroup::finish_late() {
    if (!used_.empty()) {
        const LateFlush late(store_.env());
        finish({});
    }
}

void UsedGroup::trim_late() {
    const LateFlush late(store_.env());
    finish({});
}

void UsedGroup::go_on() {
    messages_left_ = kMessages;
    bytes_left_ = kBytes;
}

} // namespace kvr
