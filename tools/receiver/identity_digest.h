// SPDX-License-Identifier: MIT
// The identity of a message as it came over a line, for a store that takes each message once: 128 bits over all that
// makes it the same message, each part with its length, so that no part can pass for a piece of its neighbour. It is
// made with a secret of the store: nobody outside can make two messages that have one identity.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "frame_splitter.h"
#include "store/keep.h"

struct XXH3_state_s;

namespace kvr {

class IdentityDigest {
  public:
    /// @param seed  the store's
    explicit IdentityDigest(std::uint64_t seed);
    /// Channel, queue, frame, descriptor block, body and the names of the files. Begins anew.
    void begin(std::string_view channel, const WireMessage& message);
    void begin_file(std::uint64_t length) { add_number(length); }
    void add_file_bytes(std::span<const char> bytes);
    [[nodiscard]] MessageIdentity finish() const;

  private:
    struct Free {
        void operator()(XXH3_state_s* state) const;
    };
    void add_number(std::uint64_t number);
    void add_text(std::string_view text);

    std::array<unsigned char, 192> secret_{}; ///< the state refers to it
    std::unique_ptr<XXH3_state_s, Free> state_;
};

} // namespace kvr
