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
            inherited_ = line_lost();
        } catch (const FullError&) {
            static_cast<void>(0); // counted to the next line that is lost
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
}

Loss LmdbGetter::line_lost() {
    Loss loss;
    if (!keeps()) {
        return loss;
    }
    const std::int64_t now = std::time(nullptr);
    group_->finish([&](WriteTxn& write, QueueRecord& record) {
        loss = suspect(write, record, options_.window, options_.repeat, now);
    });
    must_turn_back_ = hand_ != 0 && options_.repeat;
    return loss;
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
    for (int i = 0; i < kAtOnce && aged(); ++i) {
        group_->trim_late();
    }
}

} // namespace kvr
