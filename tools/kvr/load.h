// SPDX-License-Identifier: MIT
// Messages for load and for proof: numbered, with seeded content and a checksum, so that whoever gets them can tell
// what is missing, altered, repeated or out of order.
//
// The proof stands in the descriptor, which travels whole, so that an empty message has one as well:
//   format          "KVRLOAD"
//   correlation id  "CRC32 <8 hexadecimal digits> <bytes>" of the data (after a transmission header)
//   group id        "<seed, 16 hexadecimal digits> <messages in the run>"
//   sequence number 1 to the number of messages
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "kavro_api.h"
#include "output.h"

namespace kvr {

constexpr std::uint32_t kMaxLoadCount = 100'000'000;

struct LoadPlan {
    std::uint64_t seed;
    std::uint32_t count;
    std::size_t min_size; ///< of the data, evenly spread up to
    std::size_t max_size;
};

std::uint32_t crc32(std::string_view bytes);

/// Fills the data and the proof of message `number` (1 to count). The same plan always gives the same.
void make_load_message(const LoadPlan& plan, std::uint32_t number, T_KAVRO_MD& descriptor, std::string& data);

/// Checks load messages as they come.
class LoadCheck {
  public:
    /// @param data with or without its transmission header
    /// @return whether the content is what its proof says, be it repeated or out of order
    bool take(const T_KAVRO_MD& descriptor, std::string_view data);
    /// Nothing altered, repeated, out of order or foreign; with `complete`, nothing missing either.
    [[nodiscard]] bool good(bool complete) const;
    [[nodiscard]] std::string text(bool complete) const;
    [[nodiscard]] Json json(bool complete) const;

  private:
    struct Run {
        std::uint32_t total = 0;
        std::uint32_t last = 0;
        std::uint64_t taken = 0; ///< with proven content
        std::uint64_t altered = 0;
        std::uint64_t repeated = 0;
        std::uint64_t disordered = 0;
        std::vector<bool> seen;

        [[nodiscard]] std::uint64_t missing() const;
        [[nodiscard]] std::uint32_t first_missing() const;
    };
    std::map<std::uint64_t, Run> runs_; ///< by seed
    std::uint64_t foreign_ = 0;         ///< messages without a proof
};

} // namespace kvr
