// SPDX-License-Identifier: MIT
// What the listener does while memory for unfinished messages, or room in the spool for their files, is short.
//
// Memory: everybody is read in pieces of kShare. Small messages pass, and so do files, which take no memory: their end
// frees the body that waits for them. Of the connections whose package has outgrown its share one is favoured: it alone
// is read, until its message is complete, for kFavourTime of reading at most when others wait for their turn. Room: who
// finds none waits. In either case unfinished messages that do not grow are given up (UnfinishedTrial).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "connection.h"
#include "unfinished.h"

namespace kvr {

class Shortage {
  public:
    using Connections = std::vector<std::unique_ptr<Connection>>;
    /// With the default number of connections 24 MiB, 1,024 shares and a message of the greatest size stay below 48
    /// MiB.
    static constexpr std::size_t kMemoryBudget = 24U << 20U;
    static constexpr std::size_t kShare = 8U << 10U; ///< what each connection may keep, and read at once
    static constexpr std::chrono::seconds kFavourTime{5};
    static constexpr std::chrono::seconds kMemoryTrial{2};
    static constexpr std::chrono::seconds kSpoolTrial{5}; ///< a consumer may make room meanwhile

    /// Of all connections, as the caller counts it.
    void set_memory(std::size_t memory) { memory_ = memory; }
    /// A connection has been worked: what it keeps has changed.
    void note(const Connection& connection, std::size_t before, Clock::time_point now);
    [[nodiscard]] std::size_t greatest_read() const { return memory_short() ? kShare : ListenerContext::kChunk; }
    [[nodiscard]] bool holds_back(const Connection& connection) const;
    /// Closes those that have to go. Called in every round.
    /// @param reading  false: nothing is read, so nobody is judged
    void relieve(Connections& connections, bool reading, Clock::time_point now);
    /// When relieve() has to be called, should nothing happen before.
    [[nodiscard]] Clock::time_point due() const { return std::min(memory_trial_.due(), spool_trial_.due()); }

  private:
    [[nodiscard]] bool memory_short() const { return memory_ > kMemoryBudget; }
    void relieve_memory(Connections& connections, bool reading, Clock::time_point now);
    void review_favour(Connections& connections, Clock::time_point now);
    void relieve_spool(Connections& connections, bool reading, Clock::time_point now);
    static void try_unfinished(UnfinishedTrial& trial, Connections& connections, std::span<const Unfinished> all,
                               std::uint64_t excess, std::string_view what, Clock::time_point now);

    std::size_t memory_ = 0;
    std::uint64_t favoured_ = 0;
    Clock::duration favour_end_{}; ///< in its reading time
    UnfinishedTrial memory_trial_{kMemoryTrial};
    UnfinishedTrial spool_trial_{kSpoolTrial};
};

} // namespace kvr
