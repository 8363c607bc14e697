// SPDX-License-Identifier: MIT
// Keys of messages: queue id and sequence, big-endian, so that a queue's messages lie together in the order of their
// puts.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace kvr {

class MessageKey {
  public:
    static constexpr std::size_t kSize = 12;

    MessageKey(std::uint32_t queue, std::uint64_t sequence) {
        store(0, 4, queue);
        store(4, 8, sequence);
    }
    [[nodiscard]] std::string_view view() const { return {bytes_.data(), bytes_.size()}; }

    /// Sequence of a key of that queue; 0 for a key of another queue.
    static std::uint64_t sequence_in(std::string_view key, std::uint32_t queue) {
        return key.size() == kSize && load(key.substr(0, 4)) == queue ? load(key.substr(4)) : 0;
    }

  private:
    static std::uint64_t load(std::string_view bytes) {
        std::uint64_t value = 0;
        for (const char c : bytes) {
            value = value << 8 | static_cast<unsigned char>(c);
        }
        return value;
    }
    void store(std::size_t at, std::size_t size, std::uint64_t value) {
        for (std::size_t i = size; i-- > 0; value >>= 8) {
            bytes_.at(at + i) = static_cast<char>(value & 0xff);
        }
    }
    std::array<char, kSize> bytes_{};
};

} // namespace kvr
