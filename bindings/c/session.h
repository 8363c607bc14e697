// SPDX-License-Identifier: MIT
// What a connection does with its store: puts and gets, each alone or within the connection's unit of work. For one
// thread at a time; throws kvr::Error as the store does.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kavutil/unique_fd.h"
#include "store/store.h"

namespace kvr {

/// What a get is to do.
struct GetRequest {
    Selection selection;
    std::optional<std::chrono::milliseconds> wait; ///< nothing: for ever
    bool in_unit = false;
    std::uint32_t max_tries = 0; ///< given back so often a message goes aside; 0: none does
    std::string aside;           ///< its queue
};

class Session {
  public:
    explicit Session(std::shared_ptr<Store> store);
    /// Rolls back.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] Store& store() const { return *store_; }
    /// Puts all of them or none; in the unit they are copied and put by its commit.
    void put(const std::string& queue, std::span<const OutgoingMessage> messages, bool in_unit);
    /// Takes a message. What is in `message` is of no meaning unless kMessage is returned.
    Taken get(const std::string& queue, const GetRequest& request, TakenMessage& message);
    /// Ends the unit, unless it throws another error than kUnknown.
    void commit();
    void rollback() noexcept;
    /// Stops taking from the queue. Throws kBusy while the unit has messages of it.
    void release(const std::string& queue);
    /// Ends the wait of a get, or of the next one that would wait. For every thread and for signal handlers.
    void interrupt() const noexcept;

  private:
    struct Put { ///< of the unit
        std::string queue;
        T_KAVRO_MD descriptor;
        std::vector<std::string> attachments;
        std::string data;
    };
    struct Source { ///< a queue that messages are taken from
        std::unique_ptr<Taker> taker;
        std::vector<std::uint64_t> in_unit;
    };

    Source& source(const std::string& queue);
    void put_in_unit(const std::string& queue, std::span<const OutgoingMessage> messages);
    void check_room(std::size_t messages, std::size_t bytes) const;
    void check_aside(const std::string& queue, const GetRequest& request);
    Taken take(const Source& from, const GetRequest& request, std::chrono::steady_clock::time_point until,
               TakenMessage& message);
    void use_up(const Source& from, std::uint64_t sequence, std::span<const UnitPut> puts);
    void end_unit() noexcept;

    std::shared_ptr<Store> store_;
    UniqueFd interrupt_;
    std::map<std::string, Source> sources_;
    std::string checked_aside_; ///< was there when it was looked for
    std::string checked_queue_; ///< that was put to
    // The unit, but for what the sources have.
    std::vector<Put> puts_; ///< what lies behind put_count_ is room for more
    std::size_t put_count_ = 0;
    std::size_t put_bytes_ = 0;
    std::size_t taken_ = 0;
};

} // namespace kvr
