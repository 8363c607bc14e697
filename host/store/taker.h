// SPDX-License-Identifier: MIT
// Several processes that take messages of one queue, and units of work: messages that are taken and put together, all
// of them or none.
//
// A taker reserves a message: no other taker gets it. The reservation ends when a unit is committed that names it
// (Store::commit): the message is gone then, together with all else that the unit does. Where it is given back, or its
// taker or its process ends before, the message stands where it stood, and counts one more time that it was given back.
// What a process had reserved that was killed comes back within a second of others' looking for messages. The count is
// not exact after a power loss, or where it could not be written.
//
// A queue has takers, or one drainer (Store::drain), never both. What is held or kept is no taker's.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kavro_api.h"

namespace kvr {

/// Messages that the takers of one queue can have reserved together.
constexpr std::size_t kMaxReserved = 8192;
/// Takers of one queue.
constexpr std::size_t kMaxTakers = 256;

/// An id over the whole width of its field, padded with NULs.
using MessageId = std::array<char, 32>;

/// What a taker looks for: the oldest message that has all that is given.
struct Selection {
    std::optional<MessageId> message_id;
    std::optional<MessageId> correlation_id;
    [[nodiscard]] bool operator==(const Selection&) const = default;
};

/// How long a taker waits for a message.
struct TakeWait {
    std::optional<std::chrono::milliseconds> time{0}; ///< 0: not at all; nothing: for ever
    int interrupt = -1; ///< descriptor that ends the wait when it can be read; read by its owner; -1: none
};

enum class Taken {
    kMessage,
    kNone,        ///< none that matches, in the time given
    kInterrupted, ///< a signal whose handler ran, or TakeWait::interrupt, ended the wait
};

/// A copy of a message that was taken. Filled again and again it needs no memory anew.
struct TakenMessage {
    std::uint64_t sequence = 0;
    T_KAVRO_MD descriptor{}; ///< pOptData null
    std::vector<std::string> attachments;
    std::string data;
    std::uint32_t given_back = 0; ///< times that it was reserved and came back, whoever had it
};

/// One of the takers of a queue, for one thread at a time. Destroyed it gives back what it has reserved.
class Taker {
  public:
    Taker() = default;
    virtual ~Taker() = default;
    Taker(const Taker&) = delete;
    Taker& operator=(const Taker&) = delete;

    /// Reserves a message and copies it out. Signal handlers run within the wait only. Throws kNotFound when the queue
    /// is gone, kFull when kMaxReserved are reserved, kDamaged, kIo; nothing is reserved then.
    virtual Taken next(const Selection& selection, const TakeWait& wait, TakenMessage& message) = 0;
    /// Ends reservations of this taker; sequences that it has not reserved are left out.
    virtual void give_back(std::span<const std::uint64_t> sequences) = 0;
};

/// Parts of a unit of work. The views are read during the call only.
struct UnitPut {
    std::string queue;
    std::span<const struct OutgoingMessage> messages;
};
struct UnitTake {
    Taker* taker;                             ///< of the same store
    std::span<const std::uint64_t> sequences; ///< that it has reserved
};

} // namespace kvr
