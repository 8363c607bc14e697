// SPDX-License-Identifier: MIT
// How many TLS handshakes are under way: each costs some 60 KiB until it is done. A connection that is silent costs
// nothing and is not counted; one whose first bytes come while its address, or all together, have enough of them is not
// read until there is room, which those that take too long make.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "connection.h"

namespace kvr {

class Handshakes {
  public:
    static constexpr std::size_t kMost = 256;
    static constexpr std::size_t kMostOfOne = 64; ///< of one address
    static constexpr std::chrono::seconds kPatience{2};

    [[nodiscard]] bool holds_back(const Connection& connection) const;
    /// A connection has been worked and is in its handshake.
    void note(const Connection& connection);
    /// Counts anew and closes those that take too long while others wait. Called in every round.
    void relieve(const std::vector<std::unique_ptr<Connection>>& connections, Clock::time_point now);
    /// When relieve() has to be called, should nothing happen before.
    [[nodiscard]] Clock::time_point due() const { return due_; }

  private:
    std::size_t under_way_ = 0;
    std::map<std::string, std::size_t, std::less<>> of_address_;
    Clock::time_point due_ = Clock::time_point::max();
};

} // namespace kvr
