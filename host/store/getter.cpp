// SPDX-License-Identifier: MIT
// The drainer of a queue: takes messages in the order of their puts, deletes the used ones in groups, waits.
//
// mark_file.h says what a crash leaves behind at each step of a group. Two rules here keep that true:
//   - a group never passes a held message, so that its range of sequences holds used messages only, even after the held
//     one was released;
//   - the mark moves only after the message before was used up, and its group begins anew only after the delete was
//     committed.
#include "getter.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "keys.h"
#include "lock_holder.h"
#include "message_record.h"
#include "message_table.h"
#include "stop_point.h"
#include "system_error.h"
#include "wake_fifo.h"

namespace kvr {

namespace {

/// A group costs one disk flush, whatever it holds: with 64 messages the flushes took most of a message's time. Its
/// bounds are those of what a power loss repeats. Only where a disk is so full that not even a delete has room does a
/// group go beyond them, by as much again at each failed delete: sent once and repeated after a power loss is better
/// than not sent.
constexpr std::uint64_t kGroupMessages = 512;
constexpr std::uint64_t kGroupBytes = 8ULL << 20;
constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
/// Bytes of the map that may stay in this process's memory before they are let go; the kernel maps more around them.
constexpr std::uint64_t kReadBeforeDrop = 4ULL << 20;

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

class DrainGetter final : public Getter {
  public:
    DrainGetter(std::shared_ptr<StoreImpl> store, std::string queue);
    ~DrainGetter() override;
    DrainGetter(const DrainGetter&) = delete;
    DrainGetter& operator=(const DrainGetter&) = delete;

    std::int64_t next(T_KAVRO_MD& descriptor, std::span<char> buffer, bool wait) override;
    void commit() override;
    void rollback() override;
    void skip() override;
    void put_instead(const std::string& queue, const OutgoingMessage& message) override;
    std::uint64_t move_group(const std::string& queue, std::uint64_t count,
                             const std::function<std::string(std::string_view)>& change) override;
    void hold(std::string_view what, std::string_view why) override;
    [[nodiscard]] bool in_hand() const override { return hand_ != 0; }

  private:
    enum class Found {
        kMessage,
        kNothing,   ///< no message follows
        kHeldOne,   ///< the next message is held: a group ends there
        kGroupFull, ///< the next message would be one too many for the group
    };

    void use_up();
    void delete_used();
    void finish_group(const std::function<void(WriteTxn&, QueueRecord&)>& extra);
    void delete_left_over();
    void hold_in_hand();
    void retry_hold();
    void read_plan(const QueueRecord& record);
    [[nodiscard]] bool fits_group(std::string_view record) const;
    Found take(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length);
    bool take_next(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length);
    void deliver(std::uint64_t sequence, std::string_view record, T_KAVRO_MD& descriptor, std::span<char> buffer,
                 std::int64_t& length);
    std::int64_t wait_for_message(T_KAVRO_MD& descriptor, std::span<char> buffer, SignalBlock& signals);
    void count_read(std::uint64_t bytes);

    std::shared_ptr<StoreImpl> store_;
    Environment& env_;
    std::string queue_;
    std::uint32_t id_ = 0;
    std::shared_ptr<MarkFile> mark_;
    Reader reader_;
    std::unique_ptr<WakeFifo> fifo_;

    std::uint64_t generation_ = 0; ///< of the queue's record: only the drainer moves it
    std::uint64_t releases_ = 0;   ///< of the queue's record, when position_ was set
    std::uint64_t position_ = 0;   ///< messages after this sequence come next
    std::uint64_t ceiling_ = 0;    ///< first held message after the position when the group began

    UsedRange group_;
    std::uint64_t messages_left_ = kGroupMessages; ///< for the group to take
    std::uint64_t bytes_left_ = kGroupBytes;

    std::uint64_t hand_ = 0; ///< sequence of the message in hand, 0 for none
    std::uint64_t hand_bytes_ = 0;
    bool must_hold_ = false; ///< the message in hand must be held, not used up
    std::string reason_;     ///< of the hold; empty also where there was no memory for it
    bool at_end_ = true;     ///< no message that could be taken followed the one in hand when that was read
    std::uint64_t read_ = 0;
};

DrainGetter::DrainGetter(std::shared_ptr<StoreImpl> store, std::string queue)
    : store_(std::move(store)), env_(store_->env()), queue_(std::move(queue)), reader_(env_) {
    QueueRecord record;
    {
        const ReadScope scope(reader_);
        record = load_queue(reader_.txn(), queue_, env_);
    }
    id_ = record.id;
    if (const pid_t holder = store_->drain_locks().acquire(id_); holder != 0) {
        throw Error(Errc::kBusy, "queue '" + queue_ + "' is drained by " + process_text(holder) +
                                     ": browse it, or stop that process first");
    }
    try {
        mark_ = store_->mark(id_);
        fifo_ = std::make_unique<WakeFifo>(store_->files().fifo(id_));
        {
            const ReadScope scope(reader_);
            record = load_queue(reader_.txn(), queue_, env_);
        }
        if (record.id != id_) {
            throw Error(Errc::kBusy, "queue '" + queue_ + "' was defined anew meanwhile: try again");
        }
        generation_ = record.generation;
        group_ = mark_->used(generation_);
        if (!group_.empty()) {
            delete_left_over();
        } else {
            mark_->begin_group(generation_);
        }
        mark_->set_in_hand(0);
        mark_->set_waiting(false);
    } catch (...) {
        store_->drain_locks().release(id_);
        throw;
    }
}

DrainGetter::~DrainGetter() {
    hand_ = 0;
    mark_->set_in_hand(0);
    try {
        delete_used();
    } catch (const std::exception&) {
        // The mark stands: the next drainer deletes the group.
        static_cast<void>(0);
    }
    store_->drain_locks().release(id_);
}

/// Deletes what the last drainer had used when it was killed. On a disk that has no room for that, the group goes on
/// behind it.
void DrainGetter::delete_left_over() {
    try {
        finish_group({});
    } catch (const FullError&) {
        const ReadScope scope(reader_);
        // The next group looks for released messages before it: its plan takes no release for known.
        position_ = group_.through;
        ceiling_ = first_held(reader_.txn(), env_, id_, position_ + 1);
    }
}

/// The message in hand is used from here on: this is the point that decides whether a killed process repeats it.
void DrainGetter::use_up() {
    if (hand_ == 0) {
        return;
    }
    if (group_.empty()) {
        group_.first = hand_;
    }
    group_.through = hand_;
    mark_->set_used(group_);
    mark_->set_in_hand(0);
    --messages_left_;
    bytes_left_ -= hand_bytes_;
    position_ = hand_;
    hand_ = 0;
}

/// Deletes the used messages and does `extra` with the queue's record, both in one transaction; then begins a group.
void DrainGetter::finish_group(const std::function<void(WriteTxn&, QueueRecord&)>& extra) {
    store_->write(Need::kMust, [&](WriteTxn& write) {
        QueueRecord record = load_queue(write.txn(), queue_, env_);
        if (!group_.empty()) {
            erase_messages(write, record, group_.first, group_.through, {});
        }
        if (extra) {
            extra(write, record);
        }
        record.generation = generation_ + 1;
        save_queue(write, queue_, record);
    });
    mark_->begin_group(++generation_);
    group_ = {};
    messages_left_ = kGroupMessages;
    bytes_left_ = kGroupBytes;
}

void DrainGetter::delete_used() {
    if (!group_.empty()) {
        const LateFlush late(env_);
        finish_group({});
    }
}

void DrainGetter::retry_hold() {
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

/// Where the next group may go, as of the reader's moment.
void DrainGetter::read_plan(const QueueRecord& record) {
    if (record.id != id_) {
        throw Error(Errc::kNotFound, "queue '" + queue_ + "' was deleted");
    }
    if (record.releases != releases_) {
        releases_ = record.releases;
        position_ = 0; // messages that were held stand before it
    }
    ceiling_ = record.held > 0 ? first_held(reader_.txn(), env_, id_, position_ + 1) : kNone;
}

bool DrainGetter::fits_group(std::string_view record) const {
    return group_.empty() || (messages_left_ > 0 && data_bytes(record) <= bytes_left_);
}

DrainGetter::Found DrainGetter::take(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length) {
    const ReadScope scope(reader_);
    if (group_.empty()) {
        read_plan(load_queue(reader_.txn(), queue_, env_));
    }
    Cursor cursor(reader_.txn(), env_.messages, env_);
    for (;;) {
        const MessageKey start(id_, position_ + 1);
        MDB_val key = to_val(start.view());
        MDB_val value{};
        const bool found = cursor.get(key, value, MDB_SET_RANGE);
        const std::uint64_t sequence = found ? MessageKey::sequence_in(to_view(key), id_) : 0;
        if (sequence == 0) {
            at_end_ = true;
            return Found::kNothing;
        }
        if (sequence < ceiling_) {
            if (!fits_group(to_view(value))) {
                return Found::kGroupFull;
            }
            deliver(sequence, to_view(value), descriptor, buffer, length);
            const std::uint64_t next =
                cursor.get(key, value, MDB_NEXT) ? MessageKey::sequence_in(to_view(key), id_) : 0;
            at_end_ = next == 0 || next >= ceiling_;
            return Found::kMessage;
        }
        if (!group_.empty()) {
            return Found::kHeldOne;
        }
        position_ = ceiling_;
        ceiling_ = first_held(reader_.txn(), env_, id_, position_ + 1);
    }
}

void DrainGetter::deliver(std::uint64_t sequence, std::string_view record, T_KAVRO_MD& descriptor,
                          std::span<char> buffer, std::int64_t& length) {
    const MessageView view = decode_message(record);
    if (view.data.size() > buffer.size()) {
        throw Error(Errc::kTooLarge, "queue '" + queue_ + "': the next message has " +
                                         std::to_string(view.data.size()) + " bytes, the buffer " +
                                         std::to_string(buffer.size()) + ": it stays on the queue");
    }
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
    length = static_cast<std::int64_t>(view.data.size());
    hand_ = sequence;
    hand_bytes_ = view.data.size();
    mark_->set_in_hand(sequence);
    count_read(stored_size(record.size()));
}

void DrainGetter::count_read(std::uint64_t bytes) {
    read_ += bytes;
    if (read_ >= kReadBeforeDrop) {
        read_ = 0;
        env_.drop_pages();
    }
}

/// False when the queue is empty; what was used is deleted then.
bool DrainGetter::take_next(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length) {
    for (;;) {
        const Found found = take(descriptor, buffer, length);
        if (found == Found::kMessage) {
            return true;
        }
        if (group_.empty()) {
            return false;
        }
        try {
            delete_used();
        } catch (const FullError&) {
            // Not even the reserve was enough. The mark knows what is used: deleted once there is room.
            if (found == Found::kHeldOne) {
                throw;
            }
            if (found == Found::kNothing) {
                return false;
            }
            messages_left_ = kGroupMessages;
            bytes_left_ = kGroupBytes;
        }
    }
}

std::int64_t DrainGetter::next(T_KAVRO_MD& descriptor, std::span<char> buffer, bool wait) {
    SignalBlock signals;
    if (wait && (at_end_ || must_hold_)) {
        signals.block(); // the queue may be empty: a signal from here on ends the wait
    }
    retry_hold();
    use_up();
    stop_point(StopPlace::kBetweenMessages);
    std::int64_t length = -1;
    if (!wait) {
        return take_next(descriptor, buffer, length) ? length : -1;
    }
    return take(descriptor, buffer, length) == Found::kMessage ? length : wait_for_message(descriptor, buffer, signals);
}

std::int64_t DrainGetter::wait_for_message(T_KAVRO_MD& descriptor, std::span<char> buffer, SignalBlock& signals) {
    struct WaitingWord {
        MarkFile& mark;
        ~WaitingWord() { mark.set_waiting(false); }
    } const word{*mark_};
    std::int64_t length = -1;
    signals.block();
    for (;;) {
        env_.check_in_place();    // nobody would ever put to one that was removed
        mark_->set_waiting(true); // then look again: a put that does not see the word is seen by the look
        if (take_next(descriptor, buffer, length)) {
            return length;
        }
        if (!fifo_->wait(signals.original())) {
            signals.restore();
            stop_point(StopPlace::kBetweenMessages);
            return -1;
        }
    }
}

void DrainGetter::commit() {
    retry_hold();
    use_up();
    delete_used();
}

void DrainGetter::rollback() {
    hand_ = 0;
    must_hold_ = false;
    at_end_ = false;
    mark_->set_in_hand(0);
}

void DrainGetter::skip() {
    delete_used(); // a group has no gaps
    position_ = std::max(position_, hand_);
    rollback();
}

void DrainGetter::put_instead(const std::string& queue, const OutgoingMessage& message) {
    if (hand_ == 0) {
        throw Error(Errc::kInvalid, "there is no message in hand that another could replace");
    }
    try {
        check_message(message);
        std::uint32_t target_id = 0;
        std::shared_ptr<MarkFile> target_mark;
        // The quota is not asked: as much goes as comes.
        finish_group([&](WriteTxn& write, QueueRecord& record) {
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
        position_ = hand_;
        hand_ = 0;
        mark_->set_in_hand(0);
        if (target_mark) {
            store_->wake(target_id, *target_mark);
        }
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

std::uint64_t DrainGetter::move_group(const std::string& queue, std::uint64_t count,
                                      const std::function<std::string(std::string_view)>& change) {
    if (hand_ != 0 || queue == queue_) {
        throw Error(Errc::kInvalid, "messages move to another queue, and while none is in hand");
    }
    Moved moved;
    std::uint32_t target_id = 0;
    std::shared_ptr<MarkFile> target_mark;
    finish_group([&](WriteTxn& write, QueueRecord& record) {
        QueueRecord target = load_queue(write.txn(), queue, env_);
        target_id = target.id;
        target_mark = store_->mark(target_id);
        position_ = record.releases == releases_ ? position_ : 0; // released ones stand before it
        releases_ = record.releases;
        moved = move_messages(write, record, target, position_, count, change);
        save_queue(write, queue, target);
    });
    position_ = moved.through;
    store_->wake(target_id, *target_mark);
    return moved.count;
}

void DrainGetter::hold(std::string_view what, std::string_view why) {
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

void DrainGetter::hold_in_hand() {
    finish_group([&](WriteTxn& write, QueueRecord& record) {
        const MessageKey key(id_, hand_);
        // After a write of unknown outcome it may be gone, or held already.
        if (table_get(write.txn(), env_.messages, key.view(), env_) &&
            !table_get(write.txn(), env_.held, key.view(), env_)) {
            table_put(write, env_.held, key.view(), reason_.empty() ? "held" : reason_);
            ++record.held;
        }
    });
    position_ = hand_;
    hand_ = 0;
    must_hold_ = false;
    mark_->set_in_hand(0);
}

} // namespace

std::unique_ptr<Getter> drain_queue(std::shared_ptr<StoreImpl> store, const std::string& queue) {
    return std::make_unique<DrainGetter>(std::move(store), queue);
}

} // namespace kvr
