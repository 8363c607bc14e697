// SPDX-License-Identifier: MIT
// Identities in the order in which they came, the oldest of which go first, with an index by which one is found: some
// 25 bytes each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "store/keep.h"

namespace kvr {

class IdentityRing {
  public:
    /// Room for so many, taken at once; it grows beyond.
    void reserve(std::size_t count);
    void clear();

    void push(const MessageIdentity& identity);
    /// Drops the oldest.
    void pop();
    [[nodiscard]] bool contains(const MessageIdentity& identity) const;
    [[nodiscard]] std::size_t size() const { return size_; }
    /// Whether the newest ones, of which there are enough, are these, byte for byte.
    [[nodiscard]] bool ends_with(std::string_view identities) const;

  private:
    [[nodiscard]] std::size_t home(const MessageIdentity& identity) const;
    [[nodiscard]] std::size_t next(std::size_t place) const { return place + 1 == index_.size() ? 0 : place + 1; }
    void note(std::size_t slot);
    void forget(std::size_t slot);

    std::vector<MessageIdentity> slots_;
    std::size_t oldest_ = 0; ///< slot
    std::size_t size_ = 0;
    std::vector<std::uint32_t> index_; ///< slot + 1 at the first free place from its identity's home on; 0: free
};

} // namespace kvr
