// SPDX-License-Identifier: MIT
// One direction of a TCP connection, put together from its segments: in whatever order they come, repeated, or one over
// the other.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace kvr {

class TcpStream {
  public:
    using Taker = std::function<void(std::span<const char>)>;

    /// @param first  sequence number of the stream's first byte
    explicit TcpStream(std::uint32_t first) : first_(first) {}

    /// Hands over what is in order by now. Of bytes that came twice the first ones count.
    void add(std::uint32_t sequence, std::span<const char> bytes, const Taker& take);
    /// The sender ends the stream before this number.
    void end_at(std::uint32_t sequence) { end_ = position(sequence); }

    /// Bytes that were handed over.
    [[nodiscard]] std::int64_t taken() const { return taken_; }
    /// The stream's end was reached.
    [[nodiscard]] bool ended() const { return end_ && taken_ >= *end_; }
    /// Bytes that are known to be missing where the stream stands, because later ones came; 0: none.
    [[nodiscard]] std::int64_t lacking() const;
    /// Memory of what waits for those, about: its bytes, and what each piece costs beside them.
    [[nodiscard]] std::size_t waiting() const { return waiting_; }
    /// Lets go of what waits: nothing more of the stream is wanted.
    void forget();

  private:
    [[nodiscard]] std::int64_t position(std::uint32_t sequence) const;
    void keep(std::int64_t at, std::span<const char> bytes);

    std::uint32_t first_;
    std::int64_t taken_ = 0;
    std::optional<std::int64_t> end_;
    std::map<std::int64_t, std::vector<char>> later_; ///< by position; may overlap
    std::size_t waiting_ = 0;
};

} // namespace kvr
