// SPDX-License-Identifier: MIT
#include "packet.h"

#include <algorithm>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <pcap/dlt.h>

namespace kvr {
namespace {

constexpr std::size_t kSmallestTcpHeader = 20;
constexpr int kMostExtensionHeaders = 16;
constexpr unsigned kFin = 1;
constexpr unsigned kSyn = 2;
constexpr unsigned kReset = 4;
constexpr unsigned kAck = 16;

/// A packet from which layer after layer is taken off.
struct Rest {
    std::span<const unsigned char> bytes; ///< that were captured
    std::size_t length;                   ///< as it was sent

    [[nodiscard]] bool has(std::size_t count) const { return bytes.size() >= count; }
    [[nodiscard]] unsigned u8(std::size_t at) const { return bytes[at]; }
    [[nodiscard]] unsigned u16(std::size_t at) const { return u8(at) << 8U | u8(at + 1); }
    [[nodiscard]] std::uint32_t u32(std::size_t at) const { return u16(at) << 16U | u16(at + 2); }
    /// False when there is not as much.
    bool skip(std::size_t count) {
        if (!has(count) || length < count) {
            return false;
        }
        bytes = bytes.subspan(count);
        length -= count;
        return true;
    }
    /// What follows this many bytes is padding.
    void cut(std::size_t to) {
        length = std::min(length, to);
        bytes = bytes.first(std::min(bytes.size(), length));
    }
};

/// Takes the link's header off, up to the IP packet.
bool skip_link(int link, Rest& rest) {
    std::size_t header = 0;
    switch (link) {
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
        return true;
    case DLT_NULL:
    case DLT_LOOP:
        return rest.skip(4);
    case DLT_LINUX_SLL2:
        return rest.skip(20);
    case DLT_LINUX_SLL:
        header = 16;
        break;
    default:
        header = ETHER_HDR_LEN;
    }
    if (!rest.skip(header - 2)) {
        return false;
    }
    while (rest.has(2)) {
        const unsigned type = rest.u16(0);
        if (type != ETHERTYPE_VLAN && type != 0x88a8) { // 802.1ad
            return (type == ETHERTYPE_IP || type == ETHERTYPE_IPV6) && rest.skip(2);
        }
        if (!rest.skip(4)) {
            return false;
        }
    }
    return false;
}

Endpoint endpoint(const Rest& rest, std::size_t at, bool is_v6) {
    Endpoint end;
    end.is_v6 = is_v6;
    std::copy_n(rest.bytes.begin() + static_cast<std::ptrdiff_t>(at), is_v6 ? 16 : 4, end.address.begin());
    return end;
}

/// Takes the IP header off and notes the addresses; false unless a whole TCP packet follows.
bool skip_v4(Rest& rest, Segment& segment) {
    const std::size_t header = 4UL * (rest.u8(0) & 15U);
    if (!rest.has(20) || header < 20 || rest.u8(9) != IPPROTO_TCP || (rest.u16(6) & 0x3fffU) != 0) {
        return false;
    }
    if (const std::size_t total = rest.u16(2); total != 0) { // 0: cut into packets by the network card
        rest.cut(total);
    }
    segment.from = endpoint(rest, 12, false);
    segment.to = endpoint(rest, 16, false);
    return rest.skip(header);
}

bool skip_v6(Rest& rest, Segment& segment) {
    constexpr std::size_t kHeader = 40;
    if (!rest.has(kHeader)) {
        return false;
    }
    if (const std::size_t payload = rest.u16(4); payload != 0) {
        rest.cut(kHeader + payload);
    }
    unsigned next = rest.u8(6);
    segment.from = endpoint(rest, 8, true);
    segment.to = endpoint(rest, 24, true);
    if (!rest.skip(kHeader)) {
        return false;
    }
    for (int i = 0; i < kMostExtensionHeaders && next != IPPROTO_TCP; ++i) {
        const bool skippable = next == IPPROTO_HOPOPTS || next == IPPROTO_ROUTING || next == IPPROTO_DSTOPTS;
        if (!skippable || !rest.has(2)) {
            return false;
        }
        next = rest.u8(0);
        if (!rest.skip(8UL * (rest.u8(1) + 1))) {
            return false;
        }
    }
    return next == IPPROTO_TCP;
}

} // namespace

std::string Endpoint::text() const {
    char name[INET6_ADDRSTRLEN] = "";
    ::inet_ntop(is_v6 ? AF_INET6 : AF_INET, address.data(), name, sizeof name);
    return is_v6 ? fmt::format("[{}]:{}", name, port) : fmt::format("{}:{}", name, port);
}

bool is_known_link(int link) {
    static constexpr std::array kLinks{DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW,
                                       DLT_IPV4,   DLT_IPV6,      DLT_NULL,       DLT_LOOP};
    return std::ranges::find(kLinks, link) != kLinks.end();
}

std::optional<Segment> tcp_segment(int link, std::span<const unsigned char> packet, std::size_t wire_length) {
    Rest rest{packet, wire_length};
    Segment segment;
    if (!skip_link(link, rest) || !rest.has(1)) {
        return std::nullopt;
    }
    const unsigned version = rest.u8(0) >> 4U;
    if (version == 4 ? !skip_v4(rest, segment) : version != 6 || !skip_v6(rest, segment)) {
        return std::nullopt;
    }
    if (!rest.has(kSmallestTcpHeader)) {
        return std::nullopt;
    }
    segment.from.port = static_cast<std::uint16_t>(rest.u16(0));
    segment.to.port = static_cast<std::uint16_t>(rest.u16(2));
    segment.sequence = rest.u32(4);
    const unsigned flags = rest.u8(13);
    segment.syn = (flags & kSyn) != 0;
    segment.ack = (flags & kAck) != 0;
    segment.fin = (flags & kFin) != 0;
    segment.reset = (flags & kReset) != 0;
    const std::size_t header = 4UL * (rest.u8(12) >> 4U);
    if (header < kSmallestTcpHeader || !rest.skip(header)) {
        return std::nullopt;
    }
    segment.payload = {reinterpret_cast<const char*>(rest.bytes.data()), rest.bytes.size()};
    segment.length = rest.length;
    return segment;
}

} // namespace kvr
