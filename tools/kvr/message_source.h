// SPDX-License-Identifier: MIT
// Where `kvr get` has its messages from: a queue that it has for itself, or one that others take from, too.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/store.h"

namespace kvr {

/// A message in hand. Valid until it is settled.
struct TakenView {
    const T_KAVRO_MD& descriptor;
    const std::vector<std::string>& attachments;
    std::string_view data;
    std::optional<std::uint32_t> given_back; ///< times; nothing: not known here
    std::optional<std::uint64_t> sequence;   ///< its place
};

/// Whatever is in hand when it is destroyed, or its process ends, is on its queue again, and counts as given back once
/// more where others take from the queue.
class MessageSource {
  public:
    MessageSource() = default;
    virtual ~MessageSource() = default;
    MessageSource(const MessageSource&) = delete;
    MessageSource& operator=(const MessageSource&) = delete;

    /// The next message, once the last one is settled; nothing when none came in time or the wait was interrupted.
    virtual std::optional<TakenView> next() = 0;
    /// Settles it: it is gone. When the process is killed right behind, this one alone can come again.
    virtual void use_up() = 0;
    /// Settles it: it stays on its queue, and does not come again here.
    virtual void leave() = 0;
    /// At the end of all: what was used up is gone for good.
    virtual void finish() = 0;
};

struct SourceOptions {
    std::chrono::milliseconds wait{}; ///< longest one for each message
    bool alone = false;               ///< the queue for itself, where nobody takes from it: many messages come faster
    int interrupt = -1;               ///< descriptor that ends a wait when it can be read; not where it is alone
    std::uint32_t max_tries = 0;      ///< messages that were given back so often go aside; 0: none does; not alone
    std::string aside;                ///< queue for them
};

/// Throws kBusy with the process that drains the queue.
std::unique_ptr<MessageSource> open_source(Store& store, const std::string& queue, const SourceOptions& options);

} // namespace kvr
