// SPDX-License-Identifier: MIT
// The TCP segment in a captured packet. Nothing here trusts what it reads.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <tuple>

namespace kvr {

struct Endpoint {
    std::array<unsigned char, 16> address{}; ///< IPv4: the first four
    bool is_v6 = false;
    std::uint16_t port = 0;

    bool operator<(const Endpoint& other) const {
        return std::tie(address, is_v6, port) < std::tie(other.address, other.is_v6, other.port);
    }
    /// 10.0.0.2:5151 or [fe80::1]:5151
    [[nodiscard]] std::string text() const;
};

struct Segment {
    Endpoint from;
    Endpoint to;
    std::uint32_t sequence = 0; ///< of the first byte, or of the SYN before it
    bool syn = false;
    bool ack = false;
    bool fin = false;
    bool reset = false;
    std::span<const char> payload; ///< as much of it as was captured: a view into the packet
    std::size_t length = 0;        ///< of the payload as it was sent
};

/// Whether packets of this kind of link can be read. The kinds have libpcap's numbers (DLT_*).
bool is_known_link(int link);

/// Finds the segment in a packet of a known kind of link: over IPv4 or IPv6, also behind VLAN tags.
/// @param wire_length  bytes of the packet as it was sent; `packet` can be fewer
/// @return nothing for other protocols, fragments of IP packets, and what is too short to tell
std::optional<Segment> tcp_segment(int link, std::span<const unsigned char> packet, std::size_t wire_length);

} // namespace kvr
