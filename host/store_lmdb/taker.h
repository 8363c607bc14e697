// SPDX-License-Identifier: MIT
// One of the takers of a queue. claims_file.h has what they share; a unit of work ends their reservations (units.cpp).
//
// A message is reserved in a transaction that began within the turn: what others took and committed before is not in
// it.
#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "store_lmdb/claims_file.h"
#include "store_lmdb/lmdb_store.h"
#include "store_lmdb/wake_fifo.h"

namespace kvr {

class LmdbTaker final : public Taker {
  public:
    /// Throws kNotFound, kBusy.
    LmdbTaker(std::shared_ptr<LmdbStore> store, std::string queue);
    ~LmdbTaker() override;

    Taken next(const Selection& selection, const TakeWait& wait, TakenMessage& message) override;
    void give_back(std::span<const std::uint64_t> sequences) override;

    // For units.cpp.
    [[nodiscard]] const LmdbStore& store() const { return *store_; }
    [[nodiscard]] const std::string& queue() const { return queue_; }
    [[nodiscard]] bool has(std::uint64_t sequence) const { return reserved_.contains(sequence); }
    /// They were deleted, and nothing may fail after that.
    void settle(std::span<const std::uint64_t> sequences) noexcept;

  private:
    void take_over();
    QueueRecord read_record();
    bool take(const Selection& selection, TakenMessage& message);
    std::uint64_t find(const Selection& selection, const QueueRecord& record);
    std::uint64_t reserve(const Selection& selection);
    void copy_out(std::uint64_t sequence, TakenMessage& message);
    Taken wait_for_message(const Selection& selection, const TakeWait& wait, const sigset_t& mask,
                           TakenMessage& message);
    bool give_back_dead();
    void count(std::span<const std::uint64_t> sequences);
    void end(std::span<const std::uint64_t> sequences, bool back);
    void wake() { store_->wake(id_, *mark_); }

    std::shared_ptr<LmdbStore> store_;
    Environment& env_;
    std::string queue_;
    std::uint32_t id_ = 0;
    std::shared_ptr<MarkFile> mark_;
    std::shared_ptr<ClaimsFile> claims_;
    std::optional<WakeFifo> fifo_;
    Reader reader_;
    std::uint32_t taker_ = 0;                         ///< among the queue's
    std::map<std::uint64_t, std::uint32_t> reserved_; ///< sequence → entry
    std::uint64_t read_ = 0;                          ///< bytes since pages were let go

    /// How far the last selection looked in vain: what was given back since is looked at again.
    Selection sought_;
    std::uint64_t sought_before_ = 0;
    std::uint64_t sought_times_back_ = 0;
    std::uint64_t sought_releases_ = 0;
};

} // namespace kvr
