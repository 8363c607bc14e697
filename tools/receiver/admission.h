// SPDX-License-Identifier: MIT
// Who gets a place at the listener. Connections are limited below the number of descriptors that the process may have,
// so that the store and the spool can always open their files. When all places are taken, or one address has more than
// its share, a connection that has been idle for long makes room for the next one, first of all one of the address that
// has most, which makes room even if none of its connections has been idle.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace kvr {

/// Raises the limit of open files towards what `wanted` connections need.
/// @return how many connections it is enough for, at most `wanted`
std::size_t places_for_connections(std::size_t wanted);

struct Occupied {
    std::string_view address; ///< without the port
    std::chrono::steady_clock::duration idle{};
    bool may_go = false; ///< nothing of it waits unread
};

/// @param address      only connections of this one; empty: of any
/// @param most_of_one  an address with more than that makes room for any other at once, however busy it is
/// @return index of the connection that makes room
std::optional<std::size_t> who_makes_room(std::span<const Occupied> places, std::string_view address,
                                          std::chrono::steady_clock::duration least_idle, std::size_t most_of_one);

} // namespace kvr
