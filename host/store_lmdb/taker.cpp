// SPDX-License-Identifier: MIT
#include "store_lmdb/taker.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "kavutil/signal_block.h"
#include "store/message_record.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/message_table.h"
#include "store_lmdb/used_group.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint64_t kEnd = std::numeric_limits<std::uint64_t>::max();

bool has_id(const char* field, const std::optional<MessageId>& wanted) {
    return !wanted || std::memcmp(field, wanted->data(), wanted->size()) == 0;
}

bool matches(const Selection& selection, std::string_view record) {
    if (!selection.message_id && !selection.correlation_id) {
        return true;
    }
    const char* const descriptor = decode_message(record).descriptor;
    return has_id(descriptor + offsetof(T_KAVRO_MD, sMsgId), selection.message_id) &&
           has_id(descriptor + offsetof(T_KAVRO_MD, sCorrelId), selection.correlation_id);
}

void copy_view(std::uint64_t sequence, const MessageView& view, TakenMessage& message) {
    message.sequence = sequence;
    message.descriptor.pOptData = nullptr;
    std::memcpy(&message.descriptor, view.descriptor, kDescriptorSize);
    message.attachments.clear();
    for (std::string_view list = view.attachments; !list.empty();) {
        message.attachments.emplace_back(next_attachment(list));
    }
    message.data.assign(view.data.begin(), view.data.end());
}

/// The end of a wait that begins now; nothing for one without end.
std::optional<Clock::time_point> end_of(const TakeWait& wait) {
    constexpr milliseconds kLongest = std::chrono::years(10);
    return wait.time ? std::optional(Clock::now() + std::min(*wait.time, kLongest)) : std::nullopt;
}

} // namespace

LmdbTaker::LmdbTaker(std::shared_ptr<LmdbStore> store, std::string queue)
    : store_(std::move(store)), env_(store_->env()), queue_(std::move(queue)), reader_(env_) {
    id_ = read_record().id;
    if (const pid_t holder = store_->drain_locks().acquire_shared(id_); holder != 0) {
        throw Error(Errc::kBusy, "queue '" + queue_ + "' is drained by " + process_text(holder) +
                                     ", which shares it with nobody: browse it, or stop that process first");
    }
    try {
        take_over();
    } catch (...) {
        store_->drain_locks().release(id_);
        throw;
    }
}

QueueRecord LmdbTaker::read_record() {
    const ReadScope scope(reader_);
    return load_queue(reader_.txn(), queue_, env_);
}

void LmdbTaker::take_over() {
    mark_ = store_->mark(id_);
    claims_ = store_->claims(id_);
    fifo_.emplace(store_->files().fifo(id_));
    const QueueRecord record = read_record(); // as it is under the lock
    if (record.id != id_) {
        throw Error(Errc::kBusy, "queue '" + queue_ + "' was defined anew meanwhile: try again");
    }
    const DrainOptions plain;
    if (UsedGroup left(*store_, queue_, *mark_, record, plain); !left.empty()) {
        left.finish({}); // what the last drainer had used when it was killed
    }
    mark_->set_in_hand(0); // of a drainer that died
    give_back_dead();
    const std::scoped_lock turn(claims_->turn());
    taker_ = claims_->add_taker();
}

LmdbTaker::~LmdbTaker() {
    try {
        std::vector<std::uint64_t> all;
        for (const auto& [sequence, entry] : reserved_) {
            all.push_back(sequence);
        }
        give_back(all);
        const std::scoped_lock turn(claims_->turn());
        claims_->remove_taker(taker_);
    } catch (const std::exception&) {
        claims_->abandon_taker(taker_); // others give back what it had
    }
    store_->drain_locks().release(id_);
}

/// The first message that can be taken, 0 for none.
std::uint64_t LmdbTaker::find(const Selection& selection, const QueueRecord& record) {
    const bool any = !selection.message_id && !selection.correlation_id;
    const std::uint64_t next = claims_->next(record.releases);
    std::uint64_t from = next;
    if (!any && sought_ == selection && sought_times_back_ == claims_->times_back() &&
        sought_releases_ == record.releases) {
        from = std::max(from, sought_before_);
    }
    RangeWalk ranges(reader_.txn(), env_, record);
    std::uint64_t held = record.held > 0 ? first_held(reader_.txn(), env_, id_, from) : kEnd;
    std::uint64_t found = 0;
    for_range(reader_.txn(), env_, id_, from, kEnd, [&](Cursor&, std::uint64_t sequence, std::string_view message) {
        const KeptRange* const range = ranges.at(sequence);
        while (held < sequence) {
            held = first_held(reader_.txn(), env_, id_, held + 1);
        }
        if ((range != nullptr && range->keeps(sequence)) || held == sequence || claims_->is_reserved(sequence) ||
            !matches(selection, message)) {
            return true;
        }
        found = sequence;
        return false;
    });
    if (found == 0 && any) {
        claims_->set_next(record.next_sequence, record.releases);
    } else if (found == 0) {
        sought_ = selection;
        sought_before_ = record.next_sequence;
        sought_times_back_ = claims_->times_back();
        sought_releases_ = record.releases;
    }
    return found;
}

/// Within the turn.
std::uint64_t LmdbTaker::reserve(const Selection& selection) {
    const QueueRecord record = load_queue(reader_.txn(), queue_, env_);
    if (record.id != id_) {
        throw Error(Errc::kNotFound, "queue '" + queue_ + "' was deleted");
    }
    const std::uint64_t sequence = find(selection, record);
    if (sequence == 0) {
        return 0;
    }
    const auto place = reserved_.emplace(sequence, 0).first; // first: nothing may fail between the two
    try {
        place->second = claims_->reserve(sequence, taker_);
    } catch (...) {
        reserved_.erase(place);
        throw;
    }
    if (selection == Selection{}) {
        claims_->set_next(sequence + 1, record.releases);
    }
    return sequence;
}

bool LmdbTaker::take(const Selection& selection, TakenMessage& message) {
    if (claims_->look_is_due()) {
        give_back_dead();
    }
    std::uint64_t sequence = 0;
    try {
        std::unique_lock turn(claims_->turn());
        const ReadScope scope(reader_);
        sequence = reserve(selection);
        turn.unlock();
        if (sequence != 0) {
            copy_out(sequence, message);
        }
    } catch (...) {
        if (sequence != 0) {
            end({&sequence, 1}, true);
        }
        throw;
    }
    return sequence != 0;
}

void LmdbTaker::copy_out(std::uint64_t sequence, TakenMessage& message) {
    const MessageKey key(id_, sequence);
    const std::string_view stored = table_get(reader_.txn(), env_.messages, key.view(), env_).value_or("");
    copy_view(sequence, decode_message(stored), message);
    message.given_back = times_given_back(reader_.txn(), env_, key);
    read_ += stored_size(stored.size());
}

Taken LmdbTaker::next(const Selection& selection, const TakeWait& wait, TakenMessage& message) {
    SignalBlock signals;
    const bool waits = wait.time != milliseconds{0};
    if (waits) {
        signals.block(); // a signal from here on ends the wait
    }
    if (read_ >= kReadBeforeDrop) {
        const std::shared_lock lock(env_.map_lock());
        env_.drop_pages();
        read_ = 0;
    }
    if (take(selection, message) || (give_back_dead() && take(selection, message))) {
        return Taken::kMessage;
    }
    return waits ? wait_for_message(selection, wait, signals.original(), message) : Taken::kNone;
}

Taken LmdbTaker::wait_for_message(const Selection& selection, const TakeWait& wait, const sigset_t& mask,
                                  TakenMessage& message) {
    const auto end = end_of(wait);
    for (bool waited = false;; waited = true) {
        env_.check_in_place();    // nobody would ever put to one that was removed
        mark_->set_waiting(true); // then look again: a put that does not see the word is seen by the look
        if (take(selection, message) || (give_back_dead() && take(selection, message))) {
            if (waited) {
                wake(); // others may wait, and there may be more: who is woken wakes the next one
            }
            return Taken::kMessage;
        }
        const auto left = end ? std::chrono::ceil<milliseconds>(*end - Clock::now()) : WakeFifo::kLook;
        if (left.count() <= 0) {
            return Taken::kNone;
        }
        if (fifo_->wait(mask, std::min(left, WakeFifo::kLook), wait.interrupt) != WakeFifo::Woken::kLook) {
            return Taken::kInterrupted;
        }
    }
}

/// Ends reservations without a count.
void LmdbTaker::end(std::span<const std::uint64_t> sequences, bool back) {
    const std::scoped_lock turn(claims_->turn());
    for (const std::uint64_t sequence : sequences) {
        if (const auto place = reserved_.find(sequence); place != reserved_.end()) {
            claims_->end(place->second, back);
            reserved_.erase(place);
        }
    }
}

void LmdbTaker::settle(std::span<const std::uint64_t> sequences) noexcept {
    try {
        end(sequences, false);
    } catch (const std::exception&) { // no turn was to be had: their entries end with this taker
        for (const std::uint64_t sequence : sequences) {
            reserved_.erase(sequence);
        }
    }
}

void LmdbTaker::give_back(std::span<const std::uint64_t> sequences) {
    std::vector<std::uint64_t> ours;
    std::copy_if(sequences.begin(), sequences.end(), std::back_inserter(ours),
                 [this](std::uint64_t sequence) { return has(sequence); });
    if (!ours.empty()) {
        count(ours); // first: who takes it next is told
        end(ours, true);
        wake();
    }
}

void LmdbTaker::count(std::span<const std::uint64_t> sequences) {
    try {
        store_->write(Need::kMust, [&](WriteTxn& write) {
            for (const std::uint64_t sequence : sequences) {
                count_given_back(write, {id_, sequence});
            }
        });
    } catch (const std::exception&) {
        static_cast<void>(0); // given back all the same
    }
}

/// Returns whether there were any.
bool LmdbTaker::give_back_dead() {
    for (bool any = false;; any = true) {
        std::unique_lock turn(claims_->turn());
        const auto dead = claims_->adopt_dead();
        if (!dead) {
            turn.unlock();
            if (any) {
                wake();
            }
            return any;
        }
        try {
            const std::vector<std::uint64_t> sequences = claims_->reserved_by(*dead);
            turn.unlock();
            count(sequences);
            turn.lock();
        } catch (...) {
            claims_->abandon_taker(*dead); // the next one counts again
            throw;
        }
        claims_->remove_taker(*dead);
    }
}

} // namespace kvr
