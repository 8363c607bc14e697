// SPDX-License-Identifier: MIT
// The ways of a message in hand that was not sent: onto another queue, or held on its own.
#include <algorithm>

#include "store/message_record.h"
#include "store_lmdb/getter.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/keys.h"
#include "store_lmdb/message_table.h"

namespace kvr {

void LmdbGetter::put_instead(const std::string& queue, const OutgoingMessage& message) {
    if (hand_ == 0) {
        throw Error(Errc::kInvalid, "there is no message in hand that another could replace");
    }
    try {
        check_message(message);
        replace_in_hand(queue, message);
    } catch (const std::exception& error) {
        must_hold_ = hand_ != 0; // before the text, for which there may be no memory
        try {
            hold("not put on queue '" + queue + "': ", error.what());
        } catch (const std::exception&) {
            static_cast<void>(0); // the next call tries again, and says so
        }
        throw;
    }
}

void LmdbGetter::replace_in_hand(const std::string& queue, const OutgoingMessage& message) {
    std::uint32_t target_id = 0;
    std::shared_ptr<MarkFile> target_mark;
    // The quota is not asked: as much goes as comes.
    group_->finish([&](WriteTxn& write, QueueRecord& record) {
        forget_repeats(write, record, {hand_, hand_});
        erase_messages(write, record, hand_, hand_, {});
        if (queue == queue_) {
            append_message(write, record, message);
            return;
        }
        QueueRecord target = load_queue(write.txn(), queue, env_);
        target_id = target.id;
        target_mark = store_->mark(target_id);
        append_message(write, target, message);
        save_queue(write, queue, target);
    });
    order_->pass(hand_);
    let_go();
    if (target_mark) {
        store_->wake(target_id, *target_mark);
    }
}

void LmdbGetter::hold(std::string_view what, std::string_view why) {
    if (hand_ == 0) {
        return;
    }
    constexpr std::size_t kMaxReason = 1024;
    must_hold_ = true; // first: nothing that fails below may let it be used up
    reason_.clear();
    reason_.append(what.substr(0, kMaxReason)).append(why.substr(0, kMaxReason));
    reason_.resize(std::min(reason_.size(), kMaxReason));
    hold_in_hand();
}

void LmdbGetter::hold_in_hand() {
    group_->finish([&](WriteTxn& write, QueueRecord& record) {
        const MessageKey key(id_, hand_);
        // After a write of unknown outcome it may be gone, or held already.
        if (table_get(write.txn(), env_.messages, key.view(), env_) &&
            !table_get(write.txn(), env_.held, key.view(), env_)) {
            table_put(write, env_.held, key.view(), reason_.empty() ? "held" : reason_);
            ++record.held;
        }
    });
    order_->pass(hand_);
    let_go();
}

void LmdbGetter::retry_hold() {
    if (hand_ == 0 || !must_hold_) {
        return;
    }
    try {
        hold_in_hand();
    } catch (const Error& error) {
        throw Error(Errc::kHeld, "queue '" + queue_ +
                                     "': the message in hand could be neither dead-lettered nor held, "
                                     "it stays on its queue: " +
                                     error.what());
    }
}

} // namespace kvr
