// SPDX-License-Identifier: MIT
// The listening socket, and the places that it gives to connections. While nothing is read nobody is accepted either: a
// line that waits in the system's queue costs nothing here. When all places are taken, a connection that has been idle
// for long is asked to leave (admission.h): it is read to the end that its sender makes, so nothing of it is lost.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "connection.h"

namespace kvr {

class Acceptor {
  public:
    using Connections = std::vector<std::unique_ptr<Connection>>; ///< in the order in which they were accepted

    /// Listens. Both outlive this. Throws kvr::Error.
    Acceptor(ListenerContext& context, Connections& connections);

    [[nodiscard]] int port() const { return port_; }
    /// To be polled for connections; -1: none is accepted now.
    [[nodiscard]] int fd(Clock::time_point now) const { return accepting() && now >= again_ ? socket_.get() : -1; }
    /// When fd() may change although nothing happens.
    [[nodiscard]] Clock::time_point due(Clock::time_point now) const {
        return accepting() && now < again_ ? again_ : Clock::time_point::max();
    }
    /// Takes in what waits, as far as there is room.
    void accept_all(Clock::time_point now);
    /// Takes in the last ones and closes the socket: what waits in the system's queue may have been written to already.
    /// @return whether some were left for want of places: what was sent on them is lost
    bool accept_rest(Clock::time_point now);
    /// Connections have ended.
    void count_leaving();
    [[nodiscard]] std::uint64_t accepted() const { return accepted_; }
    /// As many as the listener was told to take.
    [[nodiscard]] bool all_accepted() const { return context_.options.once != 0 && accepted_ == context_.options.once; }

  private:
    [[nodiscard]] bool accepting() const;
    [[nodiscard]] bool crowded() const { return connections_.size() >= places_; }
    bool accept_one(Clock::time_point now);
    bool make_room(std::string_view address, Clock::time_point now);

    ListenerContext& context_;
    Connections& connections_;
    std::size_t places_;
    int port_ = 0;
    UniqueFd socket_;
    std::uint64_t accepted_ = 0;
    std::size_t leaving_ = 0; ///< connections that make room for others
    Clock::time_point again_; ///< after a try that failed
};

} // namespace kvr
