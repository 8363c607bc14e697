// SPDX-License-Identifier: MIT
// The event loop of the listener: one thread, poll, many connections.
//
// Bounds: memory kept for unfinished messages (kMemoryBudget; beyond it one connection at a time is read, and those
// that fell silent in mid-message are closed), the number of connections and of TLS handshakes under way (further ones
// wait in the kernel's queue), the time to the bind frame, the time that a message waits in a group (kGroupTime), the
// time of a stop (kStopTime).
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>

#include "connection.h"
#include "listen_log.h"
#include "listen_socket.h"
#include "listener_options.h"

namespace kvr {

namespace {

constexpr std::size_t kMemoryBudget = 24U << 20U;
constexpr std::chrono::seconds kSilence{10}; ///< in mid-message, while memory is short
constexpr std::chrono::milliseconds kGroupTime{20};
constexpr std::chrono::seconds kRetryTime{1}; ///< between tries of a store that is full, or of accept
constexpr std::chrono::seconds kStopTime{2};  ///< for the peers, and again for a store that fails at the end
constexpr int kEndRetryMilliseconds = 100;
/// A new line waits for an old one of its sender at most so long: until that is silent, and in all, because it could be
/// another sender of the same name.
constexpr std::chrono::milliseconds kOldLineSilence{500};
constexpr std::chrono::seconds kOldLineTime{5};
constexpr std::chrono::milliseconds kOldLineLook{20};
constexpr int kAcceptBatch = 64;
/// Each costs some 60 KiB until it is done; whoever takes longer than this makes room while others wait for it.
constexpr std::size_t kMaxHandshakes = 256;
constexpr std::chrono::seconds kHandshakePatience{2};
constexpr std::size_t kOtherDescriptors = 64;

/// SIGTERM and SIGINT as a descriptor; the mask is as before when this ends.
class StopSignals {
  public:
    StopSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        (void)::pthread_sigmask(SIG_BLOCK, &set, &before_);
        fd_.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
        if (!fd_) {
            throw Error(Errc::kIo, fmt::format("cannot wait for signals [{}:{}]", errno, std::strerror(errno)));
        }
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals() { (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    [[nodiscard]] int fd() const { return fd_.get(); }
    bool take() {
        signalfd_siginfo info{};
        return ::read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    }

  private:
    sigset_t before_{};
    UniqueFd fd_;
};

class Listener {
  public:
    explicit Listener(const ListenerOptions& options);
    int run();

  private:
    [[nodiscard]] bool accepting() const {
        return socket_ && connections_.size() < options_.max_connections && handshakes_ < kMaxHandshakes &&
               Clock::now() >= accept_again_ && !all_accepted();
    }
    [[nodiscard]] bool all_accepted() const { return options_.once != 0 && accepted_ == options_.once; }
    [[nodiscard]] bool finished() const { return (stopping_ || all_accepted()) && connections_.empty(); }
    [[nodiscard]] bool behind_old_line(const Connection& connection, Clock::time_point now) const;
    [[nodiscard]] bool held_back(const Connection& connection, Clock::time_point now) const;
    std::size_t fill_polls(Clock::time_point now);
    [[nodiscard]] int poll_time(Clock::time_point now) const;
    void accept_all();
    bool work_all(Clock::time_point now);
    void relieve_memory(Clock::time_point now);
    void relieve_handshakes(Clock::time_point now);
    void deliver(Clock::time_point now, bool idle);
    void drop_closed();
    void begin_stop(Clock::time_point now);
    int end();

    const ListenerOptions& options_;
    StopSignals signals_;
    Journal journal_;
    std::optional<TlsServer> tls_;
    std::optional<Spool> spool_;
    Delivery delivery_;
    ListenerContext context_;
    UniqueFd socket_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::vector<pollfd> polls_; ///< signals, socket, then one per connection
    std::uint64_t accepted_ = 0;
    std::size_t memory_ = 0;     ///< of all connections
    std::size_t handshakes_ = 0; ///< connections that are in theirs
    std::uint64_t favoured_ = 0;
    std::size_t turn_ = 0; ///< who is served first
    Clock::time_point group_since_ = Clock::time_point::max();
    Clock::time_point retry_at_;
    Clock::time_point accept_again_;
    Clock::time_point relieve_at_ = Clock::time_point::max(); ///< of handshakes, while there are too many
    bool crowded_told_ = false;
    bool stopping_ = false;
};

Listener::Listener(const ListenerOptions& options)
    : options_(options), journal_(options.journal),
      tls_(options.tls.enabled ? std::optional<TlsServer>(std::in_place, options.tls) : std::nullopt),
      spool_(options.store ? std::optional<Spool>(std::in_place, options.spool) : std::nullopt),
      delivery_(options.store, spool_ ? &*spool_ : nullptr, journal_), context_{options,
                                                                                tls_ ? tls_->context() : nullptr,
                                                                                spool_ ? &*spool_ : nullptr, delivery_,
                                                                                journal_} {
    int port = 0;
    socket_ = open_listen_socket(options.address, options.port, options.awkward.receive_buffer, port);
    allow_descriptors(options.max_connections * 2 + kOtherDescriptors);
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
    while (!finished()) {
        Clock::time_point now = Clock::now();
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
        if (ready > 0 && polls_[0].revents != 0 && signals_.take()) {
            begin_stop(now);
        }
        const bool worked = work_all(now);
        if (ready > 0 && polls_[1].revents != 0) {
            accept_all();
        }
        relieve_memory(now);
        relieve_handshakes(now);
        deliver(Clock::now(), !worked);
        drop_closed();
    }
    return end();
}

/// A sender that was killed begins anew while messages of its old line are still to be read: they come first.
bool Listener::behind_old_line(const Connection& connection, Clock::time_point now) const {
    return connection.bound() && now - connection.started() < kOldLineTime &&
           std::any_of(connections_.begin(), connections_.end(), [&](const auto& older) {
               return older->id() < connection.id() && older->serves_sender_of(connection) &&
                      now - older->last_bytes() < kOldLineSilence;
           });
}

bool Listener::held_back(const Connection& connection, Clock::time_point now) const {
    return delivery_.blocked() || (favoured_ != 0 && favoured_ != connection.id()) || behind_old_line(connection, now);
}

std::size_t Listener::fill_polls(Clock::time_point now) {
    polls_.clear();
    polls_.push_back({signals_.fd(), POLLIN, 0});
    polls_.push_back({accepting() ? socket_.get() : -1, POLLIN, 0});
    const bool crowded = connections_.size() >= options_.max_connections;
    if (crowded && !crowded_told_) {
        listen_log(fmt::format("{} connections: further ones wait until one ends", connections_.size()));
    }
    crowded_told_ = crowded;
    for (const auto& connection : connections_) {
        short events = connection->events(now);
        if (events == POLLIN && held_back(*connection, now)) {
            events = 0;
        }
        // A socket that is polled for nothing would still report its end, over and over.
        polls_.push_back({events != 0 ? connection->fd() : -1, events, 0});
    }
    return polls_.size();
}

int Listener::poll_time(Clock::time_point now) const {
    Clock::time_point next = Clock::time_point::max();
    if (delivery_.blocked()) {
        next = retry_at_;
    } else if (!delivery_.empty()) {
        return 0;
    }
    if (socket_ && now < accept_again_) {
        next = std::min(next, accept_again_);
    }
    if (favoured_ != 0) {
        next = std::min(next, now + kRetryTime);
    }
    next = std::min(next, relieve_at_);
    for (const auto& connection : connections_) {
        if (connection->pending() && !held_back(*connection, now)) {
            return 0;
        }
        if (behind_old_line(*connection, now)) {
            next = std::min(next, now + kOldLineLook);
        }
        next = std::min(next, connection->next_timer());
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    // A paused connection whose time has come still waits for a store that is full.
    const Clock::time_point least = delivery_.blocked() ? std::max(next, std::min(retry_at_, now + kRetryTime)) : next;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(least - now).count();
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait, 0, 60'000));
}

void Listener::accept_all() {
    for (int i = 0; i < kAcceptBatch && accepting(); ++i) {
        UniqueFd fd;
        std::string peer;
        switch (accept_connection(socket_.get(), fd, peer)) {
        case Accepted::kNone:
            return;
        case Accepted::kExhausted:
            listen_log(fmt::format("cannot accept a connection [{}:{}]: trying again in a second", errno,
                                   std::strerror(errno)));
            accept_again_ = Clock::now() + kRetryTime;
            return;
        case Accepted::kConnection:
            break;
        }
        ++accepted_;
        handshakes_ += tls_ ? 1U : 0U;
        auto connection = std::make_unique<Connection>(accepted_, std::move(fd), std::move(peer), context_);
        if (options_.awkward.refuse && (options_.awkward.first == 0 || accepted_ <= options_.awkward.first)) {
            connection->close("refused on purpose");
        }
        connections_.push_back(std::move(connection));
    }
}

/// Returns whether any connection had something to do.
bool Listener::work_all(Clock::time_point now) {
    bool worked = false;
    ++turn_; // whoever fills the group leaves little room for those after it
    for (std::size_t n = 0; n < connections_.size(); ++n) {
        const std::size_t i = (turn_ + n) % connections_.size();
        Connection& connection = *connections_[i];
        const short ready = polls_.size() > i + 2 ? polls_[i + 2].revents : static_cast<short>(0);
        const bool may_read = !held_back(connection, now);
        const bool readable = (ready != 0 || connection.pending()) && may_read;
        if (!readable && ready == 0 && connection.next_timer() > now) {
            continue;
        }
        worked = worked || readable;
        const std::size_t before = connection.memory();
        connection.work(now, ready, may_read);
        memory_ += connection.memory() - before;
        if (memory_ > kMemoryBudget && favoured_ == 0) {
            favoured_ = connection.id(); // it may go on; relieve_memory chooses better
        }
    }
    return worked;
}

/// Beyond the budget only the connection that holds most is read, until what is held is below the budget again.
/// Connections that are silent in mid-message are closed then: they hold what others need.
void Listener::relieve_memory(Clock::time_point now) {
    if (memory_ <= kMemoryBudget) {
        favoured_ = 0;
        return;
    }
    const Connection* most = nullptr;
    for (const auto& connection : connections_) {
        if (!connection->closed() && connection->in_message() && now - connection->last_bytes() > kSilence) {
            connection->close("silent in mid-message while memory is short");
        }
        connection->trim();
        if (!connection->closed() && (most == nullptr || connection->memory() > most->memory())) {
            most = connection.get();
        }
    }
    favoured_ = most == nullptr ? 0 : most->id();
}

/// Handshakes beyond their number wait in the kernel's queue, those that do not come to an end make room for them.
void Listener::relieve_handshakes(Clock::time_point now) {
    handshakes_ = 0;
    relieve_at_ = Clock::time_point::max();
    Clock::time_point oldest = now;
    for (const auto& connection : connections_) {
        if (connection->in_handshake()) {
            ++handshakes_;
            oldest = std::min(oldest, connection->started());
        }
    }
    if (handshakes_ < kMaxHandshakes) {
        return;
    }
    if (now - oldest < kHandshakePatience) {
        relieve_at_ = oldest + kHandshakePatience;
        return;
    }
    for (const auto& connection : connections_) {
        if (connection->in_handshake() && now - connection->started() >= kHandshakePatience) {
            connection->close("in its TLS handshake for too long while others wait");
            --handshakes_;
        }
    }
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
    for (const std::uint64_t id : delivery_.take_failed()) {
        for (const auto& connection : connections_) {
            if (connection->id() == id) {
                connection->close("a message could not be delivered");
            }
        }
    }
}

void Listener::drop_closed() {
    std::erase_if(connections_, [](const auto& connection) { return connection->closed(); });
    memory_ = 0;
    for (const auto& connection : connections_) {
        memory_ += connection->memory();
    }
}

void Listener::begin_stop(Clock::time_point now) {
    if (stopping_) { // a second signal does not wait for the peers
        for (const auto& connection : connections_) {
            connection->close("the listener stops at once");
        }
        return;
    }
    stopping_ = true;
    socket_.reset();
    listen_log(fmt::format("stopping: {} connections", connections_.size()));
    for (const auto& connection : connections_) {
        connection->drain(now + kStopTime);
    }
}

int Listener::end() {
    const Clock::time_point deadline = Clock::now() + kStopTime;
    while (!delivery_.flush() && Clock::now() < deadline && !signals_.take()) {
        pollfd stop{signals_.fd(), POLLIN, 0};
        (void)::poll(&stop, 1, kEndRetryMilliseconds);
    }
    listen_log(fmt::format("stopped: {} connections, {} messages, {} bytes, {} messages dead-lettered", accepted_,
                           context_.messages, context_.bytes, delivery_.dead_lettered()));
    const bool settled = delivery_.settle();
    journal_.flush();
    return settled && !context_.lost ? 0 : 1;
}

} // namespace

int run_listener(const ListenerOptions& options) {
    (void)::signal(SIGPIPE, SIG_IGN); // a write to a peer that is gone is an error, not the end
    Listener listener(options);
    return listener.run();
}

} // namespace kvr
