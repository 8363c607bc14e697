// SPDX-License-Identifier: MIT
// The event loop of the listener: one thread, poll, many connections.
//
// Each round decides for each connection whether it is read (held_back): not while the store takes nothing, not before
// the older lines of its sender, not while memory is short and others come first. Only while it is read its reading
// time passes, and every limit on a sender is in reading time. So a sender that is held back waits, and however many
// lines it opens meanwhile, they are read to their end in their order once reading goes on. New ones wait in the
// system's queue as long as nothing is read.
//
// Bounds: what is kept for unfinished messages (Shortage), the number of connections and of TLS handshakes under way
// (further ones wait in the system's queue), the time to the bind frame, the time that a message waits in a group
// (kGroupTime), the time of a stop (kStopTime, kRoomTime, kLongestStop).
//
// A stop takes in and stores what has been sent. Where store or spool take nothing it waits for kRoomTime; then what
// came is lost: it is read on all the same, so that it is counted and told.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include <fmt/format.h>
#include <poll.h>

#include "acceptor.h"
#include "handshakes.h"
#include "key_log.h"
#include "listen_log.h"
#include "listen_signals.h"
#include "listen_socket.h"
#include "listener_options.h"
#include "sender_order.h"
#include "shortage.h"

namespace kvr {

namespace {

constexpr std::chrono::milliseconds kGroupTime{20};
constexpr std::chrono::seconds kRetryTime{1};       ///< between tries of a store that is full
constexpr std::chrono::milliseconds kLockTime{500}; ///< for another process in the store: the loop has to go on
constexpr std::chrono::seconds kStopTime{2};        ///< of reading, for each connection
constexpr std::chrono::seconds kRoomTime{5};        ///< at a stop, for a store or a spool that takes nothing
constexpr std::chrono::seconds kLongestStop{8};     ///< before a supervisor that waits 10 seconds loses its patience

class Listener {
  public:
    explicit Listener(const ListenerOptions& options);
    int run();

  private:
    [[nodiscard]] bool finished(Clock::time_point now) const {
        return ((stopping_ || acceptor_.all_accepted()) && connections_.empty() && delivery_.empty()) ||
               now >= stop_at_;
    }
    [[nodiscard]] bool held_back(const Connection& connection) const;
    void decide_who_is_read(Clock::time_point now);
    std::size_t fill_polls(Clock::time_point now);
    [[nodiscard]] int poll_time(Clock::time_point now) const;
    void take_signals(Clock::time_point now);
    bool work_all(Clock::time_point now);
    void deliver(Clock::time_point now, bool idle);
    void drop_closed(Clock::time_point now);
    void begin_stop(Clock::time_point now);
    [[nodiscard]] bool takes_nothing() const;
    void give_up();
    int end();

    ListenSignals signals_;
    Journal journal_;
    std::optional<TlsServer> tls_;
    std::optional<Spool> spool_;
    Delivery delivery_;
    ListenerContext context_;
    Acceptor::Connections connections_;
    Acceptor acceptor_;
    std::vector<pollfd> polls_;  ///< signals, socket, then one per connection
    std::uint64_t lined_up_ = 0; ///< binds that the order of senders knows of
    Handshakes handshakes_;
    Shortage shortage_;
    std::size_t turn_ = 0; ///< who is served first
    Clock::time_point group_since_ = Clock::time_point::max();
    Clock::time_point retry_at_;
    Clock::time_point stop_at_ = Clock::time_point::max();
    Clock::time_point give_up_at_ = Clock::time_point::max();
    Clock::time_point log_at_ = Clock::time_point::max();
    bool stopping_ = false;
    bool lost_unseen_ = false; ///< connections that nobody accepted
};

Listener::Listener(const ListenerOptions& options)
    : journal_(options.journal),
      tls_(options.tls.enabled ? std::optional<TlsServer>(std::in_place, options.tls) : std::nullopt),
      spool_(options.store ? std::optional<Spool>(std::in_place, options.spool) : std::nullopt),
      delivery_(options.store, spool_ ? &*spool_ : nullptr, journal_, options.take_once),
      context_{options, tls_ ? tls_->context() : nullptr, spool_ ? &*spool_ : nullptr, delivery_, journal_},
      acceptor_(context_, connections_) {
    const int port = acceptor_.port();
    if (!options.port_file.empty()) {
        write_port_file(options.port_file, port);
    }
    listen_log(fmt::format("listening on {} port {}, {}{}", options.address, port, tls_ ? "TLS" : "plain",
                           options.store ? ", for queue manager " + options.store->qmgr() : ", dropping messages"));
    if (!options.address.starts_with("127.") && options.address != "::1" &&
        (!tls_ || options.tls.client_cert != ClientCert::kRequired)) {
        listen_warning("note: whoever reaches this port can put messages; --tls with --client-cert required lets in "
                       "holders of a certificate only");
    }
    if (!options.tls.key_log.empty()) {
        listen_warning(key_log_warning(options.tls.key_log));
    }
    if (options.on_listening) {
        options.on_listening(port);
    }
}

int Listener::run() {
    Clock::time_point now = Clock::now();
    while (!finished(now)) {
        decide_who_is_read(now);
        const std::size_t count = fill_polls(now);
        const int time = poll_time(now);
        if (time != 0) {
            journal_.flush();
        }
        const int ready = ::poll(polls_.data(), count, time);
        if (ready < 0 && errno != EINTR) {
            throw Error(Errc::kIo, fmt::format("poll failed [{}:{}]", errno, std::strerror(errno)));
        }
        now = Clock::now();
        if (ready > 0 && polls_[0].revents != 0) {
            take_signals(now);
        }
        const bool worked = work_all(now);
        if (ready > 0 && polls_[1].revents != 0) {
            acceptor_.accept_all(now);
        }
        if (now >= give_up_at_) {
            give_up();
        }
        shortage_.relieve(connections_, !delivery_.blocked(), now);
        handshakes_.relieve(connections_, now);
        deliver(Clock::now(), !worked);
        drop_closed(now);
        if (now >= log_at_ || log_at_ == Clock::time_point::max()) {
            log_at_ = log_counts();
        }
        now = Clock::now();
    }
    return end();
}

void Listener::take_signals(Clock::time_point now) {
    while (const int signal = signals_.take()) {
        if (signal == SIGHUP) {
            journal_.reopen();
        } else {
            begin_stop(now);
        }
    }
}

bool Listener::held_back(const Connection& connection) const {
    return delivery_.blocked() || connection.place().waits || handshakes_.holds_back(connection) ||
           shortage_.holds_back(connection);
}

void Listener::decide_who_is_read(Clock::time_point now) {
    if (lined_up_ != context_.binds) {
        SenderOrder::line_up(connections_, now);
        lined_up_ = context_.binds;
    }
    SenderOrder::decide(connections_, now);
    for (const auto& connection : connections_) {
        connection->let_read(!held_back(*connection), now);
    }
}

std::size_t Listener::fill_polls(Clock::time_point now) {
    polls_.clear();
    polls_.push_back({signals_.fd(), POLLIN, 0});
    polls_.push_back({acceptor_.fd(now), POLLIN, 0});
    for (const auto& connection : connections_) {
        short events = connection->events(now);
        if (events == POLLIN && !connection->is_read()) {
            events = 0;
        }
        // A socket that is polled for nothing would still report its end, over and over.
        polls_.push_back({events != 0 ? connection->fd() : -1, events, 0});
    }
    return polls_.size();
}

int Listener::poll_time(Clock::time_point now) const {
    Clock::time_point next =
        std::min({acceptor_.due(now), handshakes_.due(), log_at_, stop_at_, give_up_at_, shortage_.due()});
    if (delivery_.blocked()) {
        next = std::min(next, retry_at_);
    } else if (!delivery_.empty()) {
        return 0;
    }
    next = std::min(next, SenderOrder::next_look(connections_, now));
    for (const auto& connection : connections_) {
        if (connection->pending()) {
            return 0;
        }
        next = std::min(next, connection->next_timer());
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait, 0, 60'000));
}

/// Returns whether any connection had something to do.
bool Listener::work_all(Clock::time_point now) {
    bool worked = false;
    ++turn_; // whoever fills the group leaves little room for those after it
    for (std::size_t n = 0; n < connections_.size(); ++n) {
        const std::size_t i = (turn_ + n) % connections_.size();
        Connection& connection = *connections_[i];
        const short ready = polls_.size() > i + 2 ? polls_[i + 2].revents : static_cast<short>(0);
        const bool may_read = connection.is_read() && !held_back(connection);
        const bool readable = (ready != 0 || connection.pending()) && may_read;
        if (!readable && ready == 0 && connection.next_timer() > now) {
            continue;
        }
        worked = worked || readable;
        const std::size_t before = connection.memory();
        const bool had_begun = connection.handshake_begun();
        connection.work(now, ready, may_read, shortage_.greatest_read());
        shortage_.note(connection, before, now);
        if (!had_begun && connection.handshake_begun()) {
            handshakes_.note(connection);
        }
    }
    return worked;
}

void Listener::deliver(Clock::time_point now, bool idle) {
    if (delivery_.empty() && !delivery_.blocked()) {
        group_since_ = Clock::time_point::max();
        if (idle) {
            for (const auto& connection : connections_) {
                connection->trim();
            }
        }
    } else if (delivery_.blocked() ? now >= retry_at_ : idle || delivery_.full() || now - group_since_ >= kGroupTime) {
        if (!delivery_.flush()) {
            retry_at_ = now + kRetryTime;
        }
        group_since_ = Clock::time_point::max();
    }
    if (!delivery_.empty() && group_since_ == Clock::time_point::max()) {
        group_since_ = now;
    }
    if (delivery_.blocked() && retry_at_ < now) {
        retry_at_ = now + kRetryTime;
    }
}

void Listener::drop_closed(Clock::time_point now) {
    if (std::erase_if(connections_, [](const auto& connection) { return connection->closed(); }) > 0) {
        SenderOrder::line_up(connections_, now);
    }
    std::size_t memory = 0;
    for (const auto& connection : connections_) {
        memory += connection->memory();
    }
    shortage_.set_memory(memory);
    acceptor_.count_leaving();
}

void Listener::begin_stop(Clock::time_point now) {
    if (stopping_) { // a second signal waits for nobody
        stop_at_ = now;
        return;
    }
    stopping_ = true;
    stop_at_ = now + kLongestStop;
    give_up_at_ = now + kRoomTime;
    lost_unseen_ = acceptor_.accept_rest(now);
    listen_log(fmt::format("stopping: {} connections", connections_.size()));
    for (const auto& connection : connections_) {
        connection->ask_to_end(kStopTime, "the listener stops", now);
    }
    if (takes_nothing()) {
        listen_log(
            fmt::format("nothing can be stored: {} messages, and what {} connections hold, are lost unless there "
                        "is room within {} seconds: get messages, raise the quota, free disk space; a second "
                        "signal gives them up at once",
                        delivery_.waiting(), connections_.size(), kRoomTime.count()));
    }
}

bool Listener::takes_nothing() const {
    return delivery_.blocked() ||
           std::ranges::any_of(connections_, [](const auto& connection) { return connection->waits_for_spool(); });
}

void Listener::give_up() {
    give_up_at_ = Clock::time_point::max();
    if (takes_nothing()) {
        context_.files_given_up = true;
    }
    if (delivery_.blocked()) {
        delivery_.give_up();
    }
}

int Listener::end() {
    if (!delivery_.flush()) {
        delivery_.give_up();
    }
    for (const auto& connection : connections_) {
        connection->close("the listener stops");
    }
    log_counts(true);
    const std::string dropped =
        delivery_.dropped() > 0 ? fmt::format(", {} messages dropped", delivery_.dropped()) : std::string();
    const std::string repeats =
        context_.options.take_once > 0 ? fmt::format(", {} repeats left out", delivery_.repeats()) : std::string();
    listen_log(fmt::format("stopped: {} connections, {} messages, {} bytes, {} messages dead-lettered{}{}",
                           acceptor_.accepted(), delivery_.delivered(), context_.bytes, delivery_.dead_lettered(),
                           dropped, repeats));
    const bool lost = lost_unseen_ || delivery_.lost() + context_.lost_bytes > 0;
    if (lost) {
        listen_log(fmt::format("lost: {} complete messages, and {} bytes of others that had come", delivery_.lost(),
                               context_.lost_bytes));
    }
    const bool accounted = journal_.settle();
    return accounted && !lost && delivery_.dropped() == 0 ? 0 : 1;
}

} // namespace

int run_listener(const ListenerOptions& options) {
    (void)::signal(SIGPIPE, SIG_IGN); // a write to a peer that is gone is an error, not the end
    set_notice([](const std::string& line) { listen_log(line); });
    limit_waits(kLockTime);
    Listener listener(options);
    return listener.run();
}

} // namespace kvr
