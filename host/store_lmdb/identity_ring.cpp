// SPDX-License-Identifier: MIT
#include "store_lmdb/identity_ring.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kvr {

namespace {

constexpr std::size_t kLeast = 1024;

} // namespace

void IdentityRing::reserve(std::size_t count) {
    count = std::max(count, kLeast);
    if (count <= slots_.size()) {
        return;
    }
    std::vector<MessageIdentity> slots(count);
    std::vector<std::uint32_t> index(2 * count);
    for (std::size_t i = 0; i < size_; ++i) {
        slots[i] = slots_[(oldest_ + i) % slots_.size()];
    }
    slots_ = std::move(slots);
    index_ = std::move(index);
    oldest_ = 0;
    for (std::size_t i = 0; i < size_; ++i) {
        note(i);
    }
}

void IdentityRing::clear() {
    std::ranges::fill(index_, 0U);
    oldest_ = 0;
    size_ = 0;
}

void IdentityRing::push(const MessageIdentity& identity) {
    if (size_ == slots_.size()) {
        reserve(size_ + size_ / 2 + kLeast);
    }
    const std::size_t slot = (oldest_ + size_) % slots_.size();
    slots_[slot] = identity;
    note(slot);
    ++size_;
}

void IdentityRing::pop() {
    forget(oldest_);
    oldest_ = (oldest_ + 1) % slots_.size();
    --size_;
}

bool IdentityRing::contains(const MessageIdentity& identity) const {
    if (index_.empty()) {
        return false;
    }
    for (std::size_t place = home(identity); index_[place] != 0; place = next(place)) {
        if (slots_[index_[place] - 1] == identity) {
            return true;
        }
    }
    return false;
}

bool IdentityRing::ends_with(std::string_view identities) const {
    const std::size_t count = identities.size() / sizeof(MessageIdentity);
    for (std::size_t i = 0; i < count; ++i) {
        const MessageIdentity& own = slots_[(oldest_ + size_ - count + i) % slots_.size()];
        if (std::memcmp(own.data(), identities.data() + i * own.size(), own.size()) != 0) {
            return false;
        }
    }
    return true;
}

/// Where the search for an identity begins. Those of a digest are spread already; others may count up.
std::size_t IdentityRing::home(const MessageIdentity& identity) const {
    std::uint64_t half[2];
    static_assert(sizeof half == sizeof identity);
    std::memcpy(half, identity.data(), sizeof half);
    const std::uint64_t spread = (half[0] ^ half[1]) * 0x9e3779b97f4a7c15U;
    return static_cast<std::size_t>((spread >> 32U) * index_.size() >> 32U); // both factors are below 2^32
}

void IdentityRing::note(std::size_t slot) {
    std::size_t place = home(slots_[slot]);
    while (index_[place] != 0) {
        place = next(place);
    }
    index_[place] = static_cast<std::uint32_t>(slot + 1);
}

/// Frees the slot's place, and moves up what a search would not find any more.
void IdentityRing::forget(std::size_t slot) {
    std::size_t free = home(slots_[slot]);
    while (index_[free] != slot + 1) {
        free = next(free);
    }
    for (std::size_t place = next(free); index_[place] != 0; place = next(place)) {
        const std::size_t from = home(slots_[index_[place] - 1]);
        const bool reached = free <= place ? free < from && from <= place : free < from || from <= place;
        if (!reached) {
            index_[free] = index_[place];
            free = place;
        }
    }
    index_[free] = 0;
}

} // namespace kvr
