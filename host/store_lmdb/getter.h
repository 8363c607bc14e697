// SPDX-License-Identifier: MIT
// The drainer of a queue: takes messages in the order of their puts, deletes the used ones in groups, waits.
//
// mark_file.h says what a crash leaves behind at each step of a group. Two rules keep that true:
//   - a group never passes a held message, so that its range of sequences holds used messages only, even after the held
//     one was released (reading_order.h);
//   - the mark moves only after the message before was used up, and its group begins anew only after the delete was
//     committed (used_group.h).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/reading_order.h"
#include "store_lmdb/used_group.h"
#include "store_lmdb/wake_fifo.h"

namespace kvr {

class LmdbGetter final : public Getter {
  public:
    /// Takes the queue over. Throws kNotFound, kBusy.
    LmdbGetter(std::shared_ptr<LmdbStore> store, std::string queue, const DrainOptions& options);
    ~LmdbGetter() override;
    LmdbGetter(const LmdbGetter&) = delete;
    LmdbGetter& operator=(const LmdbGetter&) = delete;

    std::int64_t next(T_KAVRO_MD& descriptor, std::span<char> buffer,
                      std::optional<std::chrono::milliseconds> longest) override;
    void commit() override;
    void rollback() override;
    void skip() override;
    void put_instead(const std::string& queue, const OutgoingMessage& message) override;
    std::uint64_t move_group(const std::string& queue, std::uint64_t count,
                             const std::function<std::string(std::string_view)>& change) override;
    void hold(std::string_view what, std::string_view why) override;
    [[nodiscard]] bool in_hand() const override { return hand_ != 0; }
    [[nodiscard]] bool is_repeat() const override { return hand_ != 0 && order_->is_repeat(); }
    [[nodiscard]] const Loss& inherited_loss() const override { return inherited_; }
    Loss line_lost() override;
    void line_ended() override;

  private:
    using Found = ReadingOrder::Found;

    void take_over();
    QueueRecord read_record();
    void delete_left_over();
    void use_up();
    Found take(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length);
    bool take_next(T_KAVRO_MD& descriptor, std::span<char> buffer, std::int64_t& length);
    std::int64_t wait_for_message(T_KAVRO_MD& descriptor, std::span<char> buffer,
                                  std::optional<std::chrono::milliseconds> longest, SignalBlock& signals);
    void count_read(std::uint64_t bytes);
    void let_go();

    // getter_lines.cpp
    [[nodiscard]] bool keeps() const { return options_.keeps(); }
    void begin_lines();
    Loss lose(std::int64_t lost_at);
    void turn_back();
    void trim();

    // getter_holds.cpp
    void replace_in_hand(const std::string& queue, const OutgoingMessage& message);
    void hold_in_hand();
    void retry_hold();

    std::shared_ptr<LmdbStore> store_;
    Environment& env_;
    std::string queue_;
    std::uint32_t id_ = 0;
    std::shared_ptr<MarkFile> mark_;
    Reader reader_;
    std::optional<WakeFifo> fifo_;
    std::optional<UsedGroup> group_;
    std::optional<ReadingOrder> order_;

    std::uint64_t hand_ = 0; ///< sequence of the message in hand, 0 for none
    std::uint64_t hand_bytes_ = 0;
    bool must_hold_ = false; ///< the message in hand must be held, not used up
    std::string reason_;     ///< of the hold; empty also where there was no memory for it
    std::uint64_t read_ = 0; ///< bytes since pages were let go
    DrainOptions options_;
    Loss inherited_;
    std::optional<std::int64_t> loss_due_; ///< a loss that could not be written: its time, as suspect() takes it
    bool must_turn_back_ = false;          ///< after the message in hand come those that are handed out again
};

} // namespace kvr
