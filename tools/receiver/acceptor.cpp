// SPDX-License-Identifier: MIT
#include "acceptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <fmt/format.h>
#include <poll.h>

#include "admission.h"
#include "listen_log.h"
#include "listen_socket.h"

namespace kvr {

namespace {

constexpr std::chrono::seconds kRetryTime{1};
constexpr std::chrono::seconds kLeaveTime{2}; ///< of reading, for a connection that makes room for another
constexpr std::size_t kMostLeaving = 4;       ///< at the same time
constexpr int kAcceptBatch = 64;

} // namespace

Acceptor::Acceptor(ListenerContext& context, Connections& connections)
    : context_(context), connections_(connections), places_(places_for_connections(context.options.max_connections)) {
    const ListenerOptions& options = context.options;
    socket_ = open_listen_socket(options.address, options.port, options.awkward.receive_buffer, port_);
    if (places_ < options.max_connections) {
        listen_log(fmt::format("note: the limit of open files is enough for {} connections, not for {}: raise it "
                               "(ulimit -n) for more",
                               places_, options.max_connections));
    }
}

bool Acceptor::accepting() const {
    return socket_ && !all_accepted() && !context_.delivery.blocked() && !(crowded() && leaving_ >= kMostLeaving);
}

void Acceptor::accept_all(Clock::time_point now) {
    for (int i = 0; i < kAcceptBatch && accepting(); ++i) {
        if (crowded()) {
            if (!make_room({}, now)) {
                listen_log(fmt::format("{} connections, none of them idle: further ones wait until one ends",
                                       connections_.size()),
                           "times without a free place", "all addresses");
                again_ = now + kRetryTime;
            }
            return;
        }
        if (!accept_one(now)) {
            return;
        }
    }
}

bool Acceptor::accept_one(Clock::time_point now) {
    UniqueFd fd;
    std::string peer;
    switch (accept_connection(socket_.get(), fd, peer)) {
    case Accepted::kNone:
        return false;
    case Accepted::kExhausted:
        listen_log(
            fmt::format("cannot accept a connection [{}:{}]: trying again every second", errno, std::strerror(errno)),
            "connections not accepted", "all addresses");
        again_ = now + kRetryTime;
        return false;
    case Accepted::kConnection:
        break;
    }
    ++accepted_;
    auto connection = std::make_unique<Connection>(accepted_, std::move(fd), std::move(peer), context_);
    if (context_.options.awkward.refuse &&
        (context_.options.awkward.first == 0 || accepted_ <= context_.options.awkward.first)) {
        connection->close("refused on purpose");
    }
    const auto address = connection->host();
    const auto of_address = [&](const auto& one) { return one->host() == address; };
    if (connections_.size() >= context_.options.max_per_address &&
        static_cast<std::size_t>(std::ranges::count_if(connections_, of_address)) >= context_.options.max_per_address) {
        (void)make_room(address, now);
    }
    connections_.push_back(std::move(connection));
    return true;
}

/// A connection of which something waits unread is never asked to leave.
bool Acceptor::make_room(std::string_view address, Clock::time_point now) {
    std::vector<Occupied> occupied;
    for (const auto& connection : connections_) {
        const bool may_go = !connection->closed() && !connection->ending() && !connection->paused() &&
                            !connection->pending() && connection->unread() == 0;
        occupied.push_back({connection->host(), connection->idle(now), may_go});
    }
    const auto leaves = who_makes_room(occupied, address, std::chrono::seconds(context_.options.idle_seconds),
                                       context_.options.max_per_address);
    if (leaves) {
        connections_[*leaves]->ask_to_end(kLeaveTime, "idle for longest, makes room for another connection", now);
        ++leaving_;
    }
    return leaves.has_value();
}

bool Acceptor::accept_rest(Clock::time_point now) {
    while (socket_ && !all_accepted() && !crowded() && accept_one(now)) {
    }
    pollfd entry{socket_.get(), POLLIN, 0};
    const bool left = socket_ && !all_accepted() && ::poll(&entry, 1, 0) == 1;
    if (left) {
        listen_log("connections wait for which there is no place: what was sent on them is lost");
    }
    socket_.reset();
    return left;
}

void Acceptor::count_leaving() {
    leaving_ = static_cast<std::size_t>(
        std::ranges::count_if(connections_, [](const auto& connection) { return connection->ending(); }));
}

} // namespace kvr
