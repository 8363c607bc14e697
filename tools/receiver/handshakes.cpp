// SPDX-License-Identifier: MIT
#include "handshakes.h"

#include <algorithm>

namespace kvr {

bool Handshakes::holds_back(const Connection& connection) const {
    if (!connection.in_handshake() || connection.handshake_begun()) {
        return false;
    }
    const auto of_one = of_address_.find(connection.host());
    return under_way_ >= kMost || (of_one != of_address_.end() && of_one->second >= kMostOfOne);
}

void Handshakes::note(const Connection& connection) {
    ++under_way_;
    ++of_address_[std::string(connection.host())];
}

void Handshakes::relieve(const std::vector<std::unique_ptr<Connection>>& connections, Clock::time_point now) {
    under_way_ = 0;
    of_address_.clear();
    due_ = Clock::time_point::max();
    for (const auto& connection : connections) {
        if (connection->handshake_begun()) {
            note(*connection);
        }
    }
    const bool others_wait =
        std::ranges::any_of(connections, [&](const auto& one) { return holds_back(*one) && one->unread() > 0; });
    for (const auto& connection : connections) {
        if (!others_wait || !connection->handshake_begun()) {
            continue;
        }
        if (connection->reading_time().at(now) >= kPatience) {
            connection->close("in its TLS handshake for too long while others wait");
        } else {
            due_ = std::min(due_, connection->reading_time().when(kPatience));
        }
    }
}

} // namespace kvr
