// SPDX-License-Identifier: MIT
// Puts received messages on the queues of the receiver's store, in groups, each queue's messages in the order in which
// they came.
//
// A group is bounded in count and bytes here and in time by the listener. One put of the store is one synced
// transaction, so a group costs one sync per queue. Order of durability for a group: the spool's folder, the store, the
// journal. A message for a queue that does not exist goes to the queue manager's dead-letter queue, preceded by a
// transmission header that says where it was meant to go. Without a store messages are counted and dropped.
//
// A message is refused for a fault of its own only: too large, invalid, for a queue that does not exist while there is
// no dead-letter queue. It is dropped, those behind it are taken in. Every other error is trouble with the store:
// nothing is judged, the group waits and is tried again.
//
// Where each message is taken once, the store knows which came before: such a repeat is left out, and its files go.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "journal.h"
#include "kavro_api.h"
#include "spool.h"
#include "store/store.h"

namespace kvr {

struct ReceivedMessage {
    std::uint64_t connection;
    std::string peer;  ///< the sender's address
    std::string queue; ///< as the frame named it
    T_KAVRO_MD descriptor;
    std::vector<char> data;               ///< of a file message: the path in the spool
    std::vector<std::string> attachments; ///< paths in the spool
    std::vector<std::string> files;       ///< all files of the message, in the spool
    std::string journal;                  ///< members of its journal line
    MessageIdentity identity{};           ///< where each message is taken once
    bool lost = false;                    ///< its files were given up: it is counted only
};

class Delivery {
  public:
    static constexpr std::size_t kMaxMessages = 256;
    static constexpr std::size_t kMaxBytes = 4U << 20U;
    static constexpr std::uint64_t kMaxNamed = 1000; ///< lost or dropped ones that the log names; the journal names all

    /// @param store  null: messages are dropped
    /// @param spool  null only without a store
    /// @param remember  0, or each message is taken once as long as it is among so many
    Delivery(std::shared_ptr<Store> store, Spool* spool, Journal& journal, std::uint64_t remember);
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    /// Whether a message for this queue would find a queue to lie on. Asked before anything of it is kept. True when
    /// the store cannot tell: flush() will say so.
    bool has_home(const std::string& queue);
    void add(ReceivedMessage message);
    /// A complete message that can never be delivered: it is told and counted, its files go.
    void drop(const ReceivedMessage& message, std::string_view reason);
    /// Delivers the group. False: the store cannot take it for now (each new reason is logged); try again later.
    bool flush();
    /// At a stop: what the group holds is lost, its files stay in the spool, and so is what is added from now on.
    void give_up();

    [[nodiscard]] bool full() const { return group_.size() >= kMaxMessages || bytes_ >= kMaxBytes; }
    [[nodiscard]] bool empty() const { return group_.empty(); }
    [[nodiscard]] bool blocked() const { return !trouble_.empty() && !given_up_; }
    [[nodiscard]] std::size_t waiting() const { return group_.size(); }
    [[nodiscard]] std::uint64_t lost() const { return lost_; }
    [[nodiscard]] std::uint64_t delivered() const { return delivered_; }
    [[nodiscard]] std::uint64_t dead_lettered() const { return dead_lettered_; }
    [[nodiscard]] std::uint64_t dropped() const { return dropped_; }
    [[nodiscard]] std::uint64_t repeats() const { return repeats_; }

  private:
    struct Queued {
        ReceivedMessage message;
        std::string home; ///< where it will lie; empty until flush() asks
        bool dead_letter; ///< that is not its own queue
        bool done;        ///< lies there
        bool repeat;      ///< lies there, or elsewhere, since it came before
    };

    std::string home_of(const std::string& queue);
    void find_homes();
    void address_dead_letter(Queued& queued, std::string dead_letter);
    void put_group(const std::string& home);
    void put(const std::string& home, const std::vector<Queued*>& messages);
    void refuse(Queued& queued, const Error& error);
    void done(Queued& queued);
    void leave_out(const ReceivedMessage& message);
    void drop_files(const ReceivedMessage& message);
    void lose(const ReceivedMessage& message);
    void discard();

    std::shared_ptr<Store> store_;
    Spool* spool_;
    Journal& journal_;
    std::uint64_t remember_;
    std::vector<Queued> group_;
    std::size_t bytes_ = 0;
    std::map<std::string, bool> known_; ///< queues looked up for this group
    std::string trouble_;               ///< why the group waits; empty: it does not
    std::uint64_t delivered_ = 0;
    std::uint64_t dead_lettered_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t repeats_ = 0;
    std::uint64_t lost_ = 0;
    bool given_up_ = false;
};

} // namespace kvr
