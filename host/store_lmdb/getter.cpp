// SPDX-License-Identifier: MIT
#include "store_lmdb/getter.h"

#include <cstring>

#include "kavutil/stop_point.h"
#include "store/message_record.h"
#include "store/system_error.h"
#include "store_lmdb/message_table.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;

/// The record's message as the caller of next() gets it. Returns the bytes of its data.
std::size_t copy_out(const MessageView& view, T_KAVRO_MD& descriptor, std::span<char> buffer) {
    std::memcpy(&descriptor, view.descriptor, kDescriptorSize); // the caller's pointer at its end stays
    if ((descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0 && descriptor.pOptData != nullptr) {
        auto* files = static_cast<T_KAVRO_ACCESSORIES_MD*>(descriptor.pOptData);
        std::string_view list = view.attachments;
        for (std::uint32_t i = 0; i < view.attachment_count; ++i) {
            const std::string_view path = next_attachment(list);
            std::memcpy(files->sFiles[i], path.data(), path.size());
            files->sFiles[i][path.size()] = '\0';
        }
        files->iNum = static_cast<int>(view.attachment_count);
    }
    if (!view.data.empty()) {
        std::memcpy(buffer.data(), view.data.data(), view.data.size());
    }
    return view.data.size();
}

} // namespace

LmdbGetter::LmdbGetter(std::shared_ptr<LmdbStore> store, std::string queue, const DrainOptions& options)
    : store_(std::move(store)), env_(store_->env()), queue_(std::move(queue)), reader_(env_), options_(options) {
    id_ = read_record().id;
    if (const pid_t holder = store_->drain_locks().acquire(id_); holder != 0) {
        throw Error(Errc::kBusy, process_text(holder) + " takes messages from queue '" + queue_ +
                                     "': browse it, or stop that process first");
    }
    try {
        take_over();
    } catch (...) {
        store_->drain_locks().release(id_);
        throw;
    }
}

void LmdbGetter::take_over() {
    mark_ = store_->mark(id_);
    fifo_.emplace(store_->files().fifo(id_));
    const QueueRecord record = read_record(); // as it is under the lock
    if (record.id != id_) {
        throw Error(Errc::kBusy, "queue '" + queue_ + "' was defined anew meanwhile: try again");
    }
    order_.emplace(id_, queue_);
    group_.emplace(*store_, queue_, *mark_, record, options_);
    delete_left_over();
    begin_lines();
    mark_->set_in_hand(0);
    mark_->set_waiting(false);
}

QueueRecord LmdbGetter::read_record() {
    const ReadScope scope(reader_);
    return load_queue(reader_.txn(), queue_, env_);
}

LmdbGetter::~LmdbGetter() {
    let_go();
    try {
        group_->finish_late();
    } catch (const std::exception&) {
        // The mark stands: the next drainer deletes the group.
        static_cast<void>(0);
    }
    store_->drain_locks().release(id_);
}

/// Deletes what the last drainer had used when it was killed. On a disk that has no room for that, the group goes on
/// behind it.
void LmdbGetter::delete_left_over() {
    if (group_->empty()) {
        return;
    }
    try {
        group_->finish({});
    } catch (const FullError&) {
        const ReadScope scope(reader_);
        order_->pass_in_group(reader_, group_->through());
    }
}

void LmdbGetter::let_go() {
    hand_ = 0;
    must_hold_ = false;
    mark_->set_in_hand(0);
}

void LmdbGetter::use_up() {
    if (hand_ != 0) {
        group_->add(hand_, hand_bytes_);
        order_->pass(hand_);
        hand_ = 0;
    }
}

LmdbGetter::Found LmdbGetter::take(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length) {
    const ReadScope scope(reader_);
    const ReadingOrder::Next next = order_->look(reader_, *group_);
    if (next.found != Found::kMessage) {
        return next.found;
    }
    const MessageView view = decode_message(next.record);
    if (view.data.size() > buffer.size()) {
        throw Error(Errc::kTooLarge, "queue '" + queue_ + "': the next message has " +
                                         std::to_string(view.data.size()) + " bytes, the buffer " +
                                         std::to_string(buffer.size()) + ": it stays on the queue");
    }
    hand_bytes_ = copy_out(view, descriptor, buffer);
    length = static_cast<std::int64_t>(hand_bytes_);
    hand_ = next.sequence;
    mark_->set_in_hand(hand_);
    count_read(stored_size(next.record.size()));
    return Found::kMessage;
}

void LmdbGetter::count_read(std::uint64_t bytes) {
    read_ += bytes;
    if (read_ >= kReadBeforeDrop) {
        read_ = 0;
        env_.drop_pages();
    }
}

/// False when the queue is empty; what was used is deleted then.
bool LmdbGetter::take_next(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length) {
    for (;;) {
        const Found found = take(descriptor, buffer, length);
        if (found == Found::kMessage) {
            return true;
        }
        if (group_->empty()) {
            return false;
        }
        try {
            group_->finish_late();
        } catch (const FullError&) {
            // Not even the reserve was enough. The mark knows what is used: deleted once there is room.
            if (found == Found::kEdge) {
                throw;
            }
            if (found == Found::kNothing) {
                return false;
            }
            group_->go_on();
        }
    }
}

std::int64_t LmdbGetter::next(T_KAVRO_MD& descriptor, std::span<char> buffer,
                              std::optional<std::chrono::milliseconds> longest) {
    const bool wait = longest != std::chrono::milliseconds(0);
    SignalBlock signals;
    if (wait && (order_->at_end() || must_hold_)) {
        signals.block(); // the queue may be empty: a signal from here on ends the wait
    }
    retry_hold();
    use_up();
    turn_back();
    stop_point(StopPlace::kBetweenMessages);
    std::int64_t length = -1;
    if (!wait) {
        return take_next(descriptor, buffer, length) ? length : -1;
    }
    return take(descriptor, buffer, length) == Found::kMessage ? length
                                                               : wait_for_message(descriptor, buffer, longest, signals);
}

std::int64_t LmdbGetter::wait_for_message(T_KAVRO_MD& descriptor, std::span<char> buffer,
                                          std::optional<std::chrono::milliseconds> longest, SignalBlock& signals) {
    struct WaitingWord {
        MarkFile& mark;
        ~WaitingWord() { mark.set_waiting(false); }
    } const word{*mark_};
    std::int64_t length = -1;
    const std::optional<Clock::time_point> until = longest ? std::optional(Clock::now() + *longest) : std::nullopt;
    signals.block();
    for (;;) {
        env_.check_in_place();    // nobody would ever put to one that was removed
        mark_->set_waiting(true); // then look again: a put that does not see the word is seen by the look
        if (take_next(descriptor, buffer, length)) {
            return length;
        }
        trim();
        const auto time = until ? std::chrono::ceil<std::chrono::milliseconds>(*until - Clock::now()) : WakeFifo::kLook;
        if (time <= time.zero() ||
            fifo_->wait(signals.original(), std::min(time, WakeFifo::kLook)) == WakeFifo::Woken::kSignal) {
            signals.restore();
            stop_point(StopPlace::kBetweenMessages);
            return -1;
        }
    }
}

void LmdbGetter::commit() {
    retry_hold();
    use_up();
    group_->finish_late();
}

void LmdbGetter::rollback() {
    let_go();
    order_->go_back();
}

void LmdbGetter::skip() {
    group_->finish_late(); // a group has no gaps
    if (hand_ != 0) {
        order_->pass(hand_);
    }
    rollback();
}

std::uint64_t LmdbGetter::move_group(const std::string& queue, std::uint64_t count,
                                     const std::function<std::string(std::string_view)>& change) {
    if (hand_ != 0 || queue == queue_) {
        throw Error(Errc::kInvalid, "messages move to another queue, and while none is in hand");
    }
    Moved moved;
    std::uint32_t target_id = 0;
    std::shared_ptr<MarkFile> target_mark;
    group_->finish([&](WriteTxn& write, QueueRecord& record) {
        QueueRecord target = load_queue(write.txn(), queue, env_);
        target_id = target.id;
        target_mark = store_->mark(target_id);
        moved = move_messages(write, record, target, order_->move_position(record), count, change);
        save_queue(write, queue, target);
    });
    order_->pass(moved.through);
    store_->wake(target_id, *target_mark);
    return moved.count;
}

} // namespace kvr
