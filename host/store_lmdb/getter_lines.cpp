// SPDX-License-Identifier: MIT
// Lines over which messages are used: what can be gone with one of them, and what is kept for that.
#include <ctime>

#include "store/system_error.h"
#include "store_lmdb/getter.h"
#include "store_lmdb/kept_ranges.h"

namespace kvr {

/// Whoever drains with such options says that used messages are kept from now on, and is told what became of those
/// before.
void LmdbGetter::begin_lines() {
    if (!options_.keep) {
        return;
    }
    const QueueRecord record = read_record();
    if (record.keeping && keeps()) {
        try {
            inherited_ = lose(0);
        } catch (const FullError&) {
            static_cast<void>(0); // it is due
        }
    } else if (record.keeping != keeps()) {
        group_->finish([&](WriteTxn& write, QueueRecord& now) {
            if (keeps()) {
                begin_keeping(write, now);
            }
            now.keeping = keeps();
            now.settled = now.next_use;
        });
    }
    group_->begin_trimming();
}

Loss LmdbGetter::lose(std::int64_t lost_at) {
    loss_due_ = loss_due_.value_or(lost_at);
    Loss loss;
    group_->finish([&](WriteTxn& write, QueueRecord& record) {
        loss = suspect(write, record, options_.window, options_.repeat, *loss_due_);
    });
    loss_due_.reset();
    must_turn_back_ = hand_ != 0 && options_.repeat;
    return loss;
}

Loss LmdbGetter::line_lost() {
    return keeps() ? lose(std::time(nullptr)) : Loss{};
}

/// What was put back comes after the message that was in hand, which is a group of its own then.
void LmdbGetter::turn_back() {
    if (!must_turn_back_) {
        return;
    }
    try {
        group_->finish_late();
        must_turn_back_ = false;
    } catch (const FullError&) {
        static_cast<void>(0); // they come later
    }
}

void LmdbGetter::line_ended() {
    if (!keeps()) {
        commit();
        return;
    }
    retry_hold();
    use_up();
    if (loss_due_) {
        lose(*loss_due_); // for the next drainer; of this line, too: they cannot be told apart any more
    }
    group_->finish([](WriteTxn& /*write*/, QueueRecord& record) { record.settled = record.next_use; });
}

/// While the queue is empty nothing else deletes what was kept for long enough.
void LmdbGetter::trim() {
    constexpr int kAtOnce = 4; // a stop waits for them
    if (!options_.keep) {
        return;
    }
    const auto aged = [&] {
        const ReadScope scope(reader_);
        return has_aged(reader_.txn(), env_, id_, *options_.keep, std::time(nullptr));
    };
    try {
        for (int i = 0; i < kAtOnce && aged(); ++i) {
            group_->trim_late();
        }
    } catch (const FullError&) {
        static_cast<void>(0); // there is time
    }
}

} // namespace kvr
