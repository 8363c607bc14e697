// SPDX-License-Identifier: MIT
// The order of the lines of one sender (channel and address). A sender that was held back, or killed, begins anew while
// messages of its older line are still to be read: those come first, so a later line waits for the earlier ones.
//
// It waits until they have ended or are quiet (kQuiet of their reading time without a byte, when nothing is left of
// them in any buffer). Another sender of the same name and address looks the same as long as both send; the later one
// is let by after kLongestWait of the earlier one's reading time. Who was let by once never waits again.
#pragma once

#include <memory>
#include <vector>

#include "connection.h"

namespace kvr {

constexpr std::chrono::seconds kQuiet{2};
constexpr std::chrono::seconds kLongestWait{60};

class SenderOrder {
  public:
    using Connections = std::vector<std::unique_ptr<Connection>>; ///< in the order in which they were accepted

    /// Finds who stands behind whom; after each bind and each end of a connection.
    static void line_up(const Connections& connections, Clock::time_point now);
    /// Decides for each connection whether it waits (Connection::place).
    static void decide(const Connections& connections, Clock::time_point now);
    /// When a decision can change without a byte.
    [[nodiscard]] static Clock::time_point next_look(const Connections& connections, Clock::time_point now);
};

} // namespace kvr
