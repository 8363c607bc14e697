// SPDX-License-Identifier: MIT
#include "tcp_stream.h"

namespace kvr {
namespace {

/// Of a piece that waits: its node and two blocks of the heap. Segments of single bytes cost little else.
constexpr std::size_t kPieceCost = 128;

} // namespace

/// Numbers wrap around: the one that is nearest to where the stream stands is meant. A probe of the connection can lie
/// before the beginning.
std::int64_t TcpStream::position(std::uint32_t sequence) const {
    const auto here = static_cast<std::uint32_t>(first_ + static_cast<std::uint64_t>(taken_));
    return taken_ + static_cast<std::int32_t>(sequence - here);
}

void TcpStream::add(std::uint32_t sequence, std::span<const char> bytes, const Taker& take) {
    const auto use = [&](std::int64_t at, std::span<const char> piece) {
        const auto known = static_cast<std::size_t>(taken_ - at);
        if (piece.size() > known) {
            taken_ += static_cast<std::int64_t>(piece.size() - known);
            take(piece.subspan(known));
        }
    };
    const std::int64_t at = position(sequence);
    if (at > taken_) {
        if (!bytes.empty()) {
            keep(at, bytes);
        }
        return;
    }
    use(at, bytes);
    while (!later_.empty() && later_.begin()->first <= taken_) {
        const auto next = later_.extract(later_.begin());
        waiting_ -= kPieceCost + next.mapped().size();
        use(next.key(), next.mapped());
    }
}

void TcpStream::keep(std::int64_t at, std::span<const char> bytes) {
    const auto [place, is_new] = later_.try_emplace(at);
    waiting_ += is_new ? kPieceCost : 0;
    std::vector<char>& piece = place->second;
    if (bytes.size() > piece.size()) {
        waiting_ += bytes.size() - piece.size();
        piece.assign(bytes.begin(), bytes.end());
    }
}

void TcpStream::forget() {
    later_.clear();
    waiting_ = 0;
}

std::int64_t TcpStream::lacking() const {
    const std::int64_t next = later_.empty() ? end_.value_or(taken_) : later_.begin()->first;
    return next > taken_ ? next - taken_ : 0;
}

} // namespace kvr
