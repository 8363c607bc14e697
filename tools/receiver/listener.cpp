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

#include "admission.h"
#include "connection.h"
#include "handshakes.h"
#include "listen_log.h"
#include "listen_signals.h"
#include "listen_socket.h"
#include "listener_options.h"
#include "sender_order.h"
#include "shortage.h"

namespace kvr {

namespace {

constexpr std::chrono::milliseconds kGroupTime{20};
constexpr std::chrono::seconds kRetryTime{1};       ///< between tries of a store that is full, or of accept
constexpr std::chrono::milliseconds kLockTime{500}; ///< for another process in the store: the loop has to go on
constexpr std::chrono::seconds kStopTime{2};        ///< of reading, for each connection
constexpr std::chrono::seconds kRoomTime{5};        ///< at a stop, for a store or a spool that takes nothing
constexpr std::chrono::seconds kLongestStop{8};     ///< before a supervisor that waits 10 seconds loses its patience
constexpr std::chrono::seconds kLeaveTime{2};       ///< of reading, for a connection that makes room for another
constexpr std::size_t kMostLeaving = 4;             ///< at the same time
constexpr int kAcceptBatch = 64;

class Listener {
  public:
    explicit Listener(const ListenerOptions& options);
    int run();

  private:
    [[nodiscard]] bool accepting() const;
    [[nodiscard]] bool crowded() const { return connections_.size() >= places_; }
    [[nodiscard]] bool all_accepted() const { return options_.once != 0 && accepted_ == options_.once; }
    [[nodiscard]] bool finished(Clock::time_point now) const {
        return ((stopping_ || all_accepted()) && connections_.empty() && delivery_.empty()) || now >= stop_at_;
    }
    [[nodiscard]] bool held_back(const Connection& connection) const;
    void decide_who_is_read(Clock::time_point now);
    std::size_t fill_polls(Clock::time_point now);
    [[nodiscard]] int poll_time(Clock::time_point now) const;
    void take_signals(Clock::time_point now);
    void accept_all(Clock::time_point now);
    bool accept_one(Clock::time_point now);
    bool make_room(std::string_view address, Clock::time_point now);
    bool work_all(Clock::time_point now);
    void deliver(Clock::time_point now, bool idle);
    void drop_closed(Clock::time_point now);
    void begin_stop(Clock::time_point now);
    void accept_rest(Clock::time_point now);
    [[nodiscard]] bool takes_nothing() const;
    void give_up();
    int end();

    const ListenerOptions& options_;
    ListenSignals signals_;
    Journal journal_;
    std::optional<TlsServer> tls_;
    std::optional<Spool> spool_;
    Delivery delivery_;
    ListenerContext context_;
    UniqueFd socket_;
    std::size_t places_;
    std::vector<std::unique_ptr<Connection>> connections_; ///< in the order in which they were accepted
    std::vector<pollfd> polls_;                            ///< signals, socket, then one per connection
    std::uint64_t accepted_ = 0;
    std::uint64_t lined_up_ = 0; ///< binds that the order of senders knows of
    Handshakes handshakes_;
    std::size_t leaving_ = 0; ///< connections that make room for others
    Shortage shortage_;
    std::size_t turn_ = 0; ///< who is served first
    Clock::time_point group_since_ = Clock::time_point::max();
    Clock::time_point retry_at_;
    Clock::time_point accept_again_;
    Clock::time_point stop_at_ = Clock::time_point::max();
    Clock::time_point give_up_at_ = Clock::time_point::max();
    Clock::time_point log_at_ = Clock::time_point::max();
    bool stopping_ = false;
    bool lost_unseen_ = false; ///< connections that nobody accepted
};

Listener::Listener(const ListenerOptions& options)
    : options_(options), journal_(options.journal),
      tls_(options.tls.enabled ? std::optional<TlsServer>(std::in_place, options.tls) : std::nullopt),
      spool_(options.store ? std::optional<Spool>(std::in_place, options.spool) : std::nullopt),
      delivery_(options.store, spool_ ? &*spool_ : nullptr, journal_), context_{options,
                                                                                tls_ ? tls_->context() : nullptr,
                                                                                spool_ ? &*spool_ : nullptr, delivery_,
                                                                                journal_},
      places_(places_for_connections(options.max_connections)) {
    int port = 0;
    socket_ = open_listen_socket(options.address, options.port, options.awkward.receive_buffer, port);
    if (places_ < options.max_connections) {
        listen_log(fmt::format("note: the limit of open files is enough for {} connections, not for {}: raise it "
                               "(ulimit -n) for more",
                               places_, options.max_connections));
    }
    if (!options.port_file.empty()) {
        write_port_file(options.port_file, port);
    }
    listen_log(fmt::format("listening on {} port {}, {}{}", options.address, port, tls_ ? "TLS" : "plain",
                           options.store ? ", for queue manager " + options.store->qmgr() : ", dropping messages"));
    if (!options.address.starts_with("127.") && options.address != "::1" &&
        (!tls_ || options.tls.client_cert != ClientCert::kRequired)) {
        listen_log("note: whoever reaches this port can put messages; --tls with --client-cert required lets in "
                   "holders of a certificate only");
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
            accept_all(now);
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
    polls_.push_back({accepting() && now >= accept_again_ ? socket_.get() : -1, POLLIN, 0});
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
    Clock::time_point next = std::min({handshakes_.due(), log_at_, stop_at_, give_up_at_, shortage_.due()});
    if (delivery_.blocked()) {
        next = std::min(next, retry_at_);
    } else if (!delivery_.empty()) {
        return 0;
    }
    if (accepting() && now < accept_again_) {
        next = std::min(next, accept_again_);
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

/// While nothing is read nobody is accepted either: a line that waits in the system's queue costs nothing here.
bool Listener::accepting() const {
    return socket_ && !all_accepted() && !delivery_.blocked() && !(crowded() && leaving_ >= kMostLeaving);
}

void Listener::accept_all(Clock::time_point now) {
    for (int i = 0; i < kAcceptBatch && accepting(); ++i) {
        if (crowded()) {
            if (!make_room({}, now)) {
                listen_log(fmt::format("{} connections, none of them idle: further ones wait until one ends",
                                       connections_.size()),
                           "times without a free place", "all addresses");
                accept_again_ = now + kRetryTime;
            }
            return;
        }
        if (!accept_one(now)) {
            return;
        }
    }
}

bool Listener::accept_one(Clock::time_point now) {
    UniqueFd fd;
    std::string peer;
    switch (accept_connection(socket_.get(), fd, peer)) {
    case Accepted::kNone:
        return false;
    case Accepted::kExhausted:
        listen_log(
            fmt::format("cannot accept a connection [{}:{}]: trying again every second", errno, std::strerror(errno)),
            "connections not accepted", "all addresses");
        accept_again_ = now + kRetryTime;
        return false;
    case Accepted::kConnection:
        break;
    }
    ++accepted_;
    auto connection = std::make_unique<Connection>(accepted_, std::move(fd), std::move(peer), context_);
    if (options_.awkward.refuse && (options_.awkward.first == 0 || accepted_ <= options_.awkward.first)) {
        connection->close("refused on purpose");
    }
    const auto address = connection->host();
    const auto of_address = [&](const auto& one) { return one->host() == address; };
    if (connections_.size() >= options_.max_per_address &&
        static_cast<std::size_t>(std::ranges::count_if(connections_, of_address)) >= options_.max_per_address) {
        (void)make_room(address, now);
    }
    connections_.push_back(std::move(connection));
    return true;
}

/// The connection that has been idle for longest leaves, without a loss: it is read to the end that its sender makes. A
/// connection of which something waits unread is never asked to.
bool Listener::make_room(std::string_view address, Clock::time_point now) {
    std::vector<Occupied> occupied;
    for (const auto& connection : connections_) {
        const bool may_go = !connection->closed() && !connection->draining() && !connection->paused() &&
                            !connection->pending() && connection->unread() == 0;
        occupied.push_back({connection->host(), connection->idle(now), may_go});
    }
    const auto leaves =
        who_makes_room(occupied, address, std::chrono::seconds(options_.idle_seconds), options_.max_per_address);
    if (leaves) {
        connections_[*leaves]->drain(kLeaveTime, "idle for longest, makes room for another connection", now);
        ++leaving_;
    }
    return leaves.has_value();
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
        const bool had_begun = connection.shakes_hands();
        connection.work(now, ready, may_read, shortage_.greatest_read());
        shortage_.note(connection, before, now);
        if (!had_begun && connection.shakes_hands()) {
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
    leaving_ = 0;
    for (const auto& connection : connections_) {
        memory += connection->memory();
        leaving_ += connection->draining() ? 1U : 0U;
    }
    shortage_.set_memory(memory);
}

void Listener::begin_stop(Clock::time_point now) {
    if (stopping_) { // a second signal waits for nobody
        stop_at_ = now;
        return;
    }
    stopping_ = true;
    stop_at_ = now + kLongestStop;
    give_up_at_ = now + kRoomTime;
    accept_rest(now);
    listen_log(fmt::format("stopping: {} connections", connections_.size()));
    for (const auto& connection : connections_) {
        connection->drain(kStopTime, "the listener stops", now);
    }
    if (takes_nothing()) {
        listen_log(
            fmt::format("nothing can be stored: {} messages, and what {} connections hold, are lost unless there "
                        "is room within {} seconds: get messages, raise the quota, free disk space; a second "
                        "signal gives them up at once",
                        delivery_.waiting(), connections_.size(), kRoomTime.count()));
    }
}

/// What waits in the system's queue may have been written to already.
void Listener::accept_rest(Clock::time_point now) {
    while (socket_ && !all_accepted() && !crowded() && accept_one(now)) {
    }
    pollfd entry{socket_.get(), POLLIN, 0};
    lost_unseen_ = socket_ && !all_accepted() && ::poll(&entry, 1, 0) == 1;
    if (lost_unseen_) {
        listen_log("connections wait for which there is no place: what was sent on them is lost");
    }
    socket_.reset();
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
    listen_log(fmt::format("stopped: {} connections, {} messages, {} bytes, {} messages dead-lettered{}", accepted_,
                           delivery_.delivered(), context_.bytes, delivery_.dead_lettered(), dropped));
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
