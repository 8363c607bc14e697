// SPDX-License-Identifier: MIT
#include "store_lmdb/used_group.h"

#include "store_lmdb/message_table.h"

namespace kvr {

namespace {

/// With 64 messages the flushes took most of a message's time. The bounds are also those of what a power loss repeats.
constexpr std::uint64_t kGroupMessages = 512;
constexpr std::uint64_t kGroupBytes = 8ULL << 20;

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

UsedGroup::UsedGroup(LmdbStore& store, const std::string& queue, MarkFile& mark, std::uint64_t generation)
    : store_(store), queue_(queue), mark_(mark), generation_(generation), used_(mark.used(generation)) {
    if (used_.empty()) {
        mark_.begin_group(generation_);
    }
    go_on();
}

void UsedGroup::add(std::uint64_t sequence, std::uint64_t bytes) {
    if (used_.empty()) {
        used_.first = sequence;
    }
    used_.through = sequence;
    mark_.set_used(used_);
    mark_.set_in_hand(0);
    --messages_left_;
    bytes_left_ -= bytes;
}

bool UsedGroup::has_room(std::uint64_t bytes) const {
    return used_.empty() || (messages_left_ > 0 && bytes <= bytes_left_);
}

void UsedGroup::finish(const std::function<void(WriteTxn&, QueueRecord&)>& extra) {
    store_.write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), queue_, write.env());
        if (!used_.empty()) {
            erase_messages(write, record, used_.first, used_.through, {});
        }
        if (extra) {
            extra(write, record);
        }
        record.generation = generation_ + 1;
        save_queue(write, queue_, record);
    });
    mark_.begin_group(++generation_);
    used_ = {};
    go_on();
}

void UsedGroup::finish_late() {
    if (!used_.empty()) {
        const LateFlush late(store_.env());
        finish({});
    }
}

void UsedGroup::go_on() {
    messages_left_ = kGroupMessages;
    bytes_left_ = kGroupBytes;
}

} // namespace kvr
