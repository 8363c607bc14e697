// SPDX-License-Identifier: MIT
// Any bytes as a captured packet: what is found in it lies within it. And as a list of segments of one stream, in any
// order, repeated and overlapping: what is handed over is the stream from its beginning to the first byte that none
// had.
#include <array>
#include <cstdlib>
#include <string>

#include "capture/packet.h"
#include "capture/tcp_stream.h"

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void read_packet(std::span<const unsigned char> packet) {
    for (int link = 0; link < 300; ++link) {
        const std::size_t sent = packet.size() + (packet.empty() ? 0 : packet[0] % 2 * 1000U); // or cut by the capture
        const auto found = kvr::is_known_link(link) ? kvr::tcp_segment(link, packet, sent) : std::nullopt;
        require(!found || (found->payload.size() <= found->length && found->length <= sent));
        require(
            !found || found->payload.empty() ||
            (static_cast<const void*>(found->payload.data()) >= packet.data() &&
             static_cast<const void*>(found->payload.data() + found->payload.size()) <= packet.data() + packet.size()));
    }
}

void put_together(std::span<const unsigned char> script) {
    constexpr std::uint32_t kFirst = 0xffffffc0; // the numbers wrap around
    std::string sent;
    for (int i = 0; i < 300; ++i) {
        sent += static_cast<char>(i * 7 + i / 256);
    }
    std::array<bool, 300> known{};
    kvr::TcpStream stream(kFirst);
    std::string got;
    for (; script.size() >= 2; script = script.subspan(2)) {
        const std::size_t at = script[0];
        const std::string piece = sent.substr(at, script[1] % 64U);
        std::fill_n(known.begin() + static_cast<std::ptrdiff_t>(at), piece.size(), true);
        stream.add(kFirst + static_cast<std::uint32_t>(at), piece,
                   [&](std::span<const char> bytes) { got.append(bytes.data(), bytes.size()); });
        const auto end = static_cast<std::size_t>(std::find(known.begin(), known.end(), false) - known.begin());
        require(got == sent.substr(0, end) && stream.taken() == static_cast<std::int64_t>(end));
        const bool later =
            std::find(known.begin() + static_cast<std::ptrdiff_t>(end), known.end(), true) != known.end();
        require((stream.lacking() > 0) == later && (stream.waiting() > 0) == later);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    read_packet({data, size});
    put_together({data, size});
    return 0;
}
