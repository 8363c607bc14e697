// SPDX-License-Identifier: MIT
#include "store_lmdb/claims_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <span>

#include <fcntl.h>
#include <sys/mman.h>

#include "store/lock_holder.h"
#include "store/permissions.h"
#include "store/system_error.h"
#include "store/taker.h"
#include "store_lmdb/boot_id.h"

namespace kvr {

namespace {

constexpr std::uint64_t kMagic = 0x31304d4c4352564bULL; // "KVRCLM01"

/// The turn has the first byte; each taker one of those behind it.
struct flock taker_lock(std::uint32_t taker, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 1 + static_cast<off_t>(taker);
    lock.l_len = 1;
    return lock;
}

std::int64_t seconds_since_boot() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

} // namespace

struct ClaimsFile::Pages {
    struct Claim {
        std::atomic<std::uint64_t> sequence; ///< 0: free; set last and cleared first
        std::atomic<std::uint64_t> taker;
    };
    std::atomic<std::uint64_t> magic;
    std::uint64_t store_id;
    std::uint64_t queue_id;
    BootId boot;
    std::atomic<std::uint64_t> next;
    std::atomic<std::uint64_t> releases;
    std::atomic<std::uint64_t> highest; ///< nothing behind it is reserved
    std::atomic<std::uint64_t> times_back;
    std::atomic<std::int64_t> looked_at; ///< for the dead
    std::atomic<std::uint64_t> end;      ///< entries from here on are free
    std::atomic<std::uint64_t> free;     ///< those before it are not
    std::array<std::atomic<std::uint8_t>, kMaxTakers> takers;
    std::array<Claim, kMaxReserved> claims;
};

ClaimsFile::ClaimsFile(const std::filesystem::path& path, std::uint64_t store_id, std::uint32_t queue_id)
    : fd_(open_allocated_file(path, sizeof(Pages))), turn_(fd_.get(), 0, path, "takes messages by"),
      store_id_(store_id), queue_id_(queue_id) {
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint8_t>::is_always_lock_free);
    void* mapped = ::mmap(nullptr, sizeof(Pages), PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (mapped == MAP_FAILED) {
        throw_system("map", path, errno);
    }
    pages_ = static_cast<Pages*>(mapped);
}

ClaimsFile::~ClaimsFile() {
    ::munmap(pages_, sizeof(Pages));
}

bool ClaimsFile::is_ours() const {
    return pages_->magic == kMagic && pages_->store_id == store_id_ && pages_->queue_id == queue_id_ &&
           pages_->boot == boot_id();
}

void ClaimsFile::reset() {
    const bool known = is_ours();
    if (!known) {
        pages_->magic = 0;
    }
    for (Pages::Claim& claim : pages_->claims) {
        claim.sequence = 0;
    }
    for (auto& taker : pages_->takers) {
        taker = 0;
    }
    pages_->next = 0;
    pages_->releases = 0;
    pages_->highest = 0;
    ++pages_->times_back;
    pages_->end = 0;
    pages_->free = 0;
    if (!known) { // else others may read it now
        pages_->store_id = store_id_;
        pages_->queue_id = queue_id_;
        pages_->boot = boot_id();
        pages_->magic = kMagic;
    }
}

bool ClaimsFile::is_known(std::uint32_t taker) const {
    const std::scoped_lock guard(ours_mutex_);
    return ours_.contains(taker);
}

bool ClaimsFile::lives(std::uint32_t taker) const {
    return is_known(taker) || lock_holder(fd_.get(), taker_lock(taker, F_WRLCK)) != 0;
}

bool ClaimsFile::lock_taker(std::uint32_t taker) {
    struct flock lock = taker_lock(taker, F_WRLCK);
    if (is_known(taker) || ::fcntl(fd_.get(), F_SETLK, &lock) != 0) {
        return false;
    }
    const std::scoped_lock guard(ours_mutex_);
    ours_.insert(taker);
    return true;
}

std::uint32_t ClaimsFile::add_taker() {
    const auto used = [](const auto& taker) { return taker != 0; };
    if (!is_ours() || std::none_of(pages_->takers.begin(), pages_->takers.end(), used)) {
        reset();
    }
    for (std::uint32_t taker = 0; taker < kMaxTakers; ++taker) {
        if (pages_->takers.at(taker) == 0 && lock_taker(taker)) {
            pages_->takers.at(taker) = 1;
            return taker;
        }
    }
    throw Error(Errc::kBusy,
                "the queue has " + std::to_string(kMaxTakers) + " takers, more it does not get: end one of them first");
}

void ClaimsFile::remove_taker(std::uint32_t taker) {
    for (std::uint32_t entry = 0; entry < pages_->end; ++entry) {
        const Pages::Claim& claim = pages_->claims.at(entry);
        if (claim.sequence != 0 && claim.taker == taker) {
            end(entry, true);
        }
    }
    pages_->takers.at(taker) = 0;
    abandon_taker(taker);
}

void ClaimsFile::abandon_taker(std::uint32_t taker) {
    struct flock lock = taker_lock(taker, F_UNLCK);
    ::fcntl(fd_.get(), F_SETLK, &lock); // first: a thread that took it over meanwhile would lose its lock
    const std::scoped_lock guard(ours_mutex_);
    ours_.erase(taker);
}

bool ClaimsFile::look_is_due() const {
    return pages_->looked_at != seconds_since_boot();
}

std::optional<std::uint32_t> ClaimsFile::adopt_dead() {
    for (std::uint32_t taker = 0; is_ours() && taker < kMaxTakers; ++taker) {
        if (pages_->takers.at(taker) != 0 && !lives(taker) && lock_taker(taker)) {
            return taker;
        }
    }
    pages_->looked_at = seconds_since_boot();
    return std::nullopt;
}

std::vector<std::uint64_t> ClaimsFile::reserved_by(std::uint32_t taker) const {
    std::vector<std::uint64_t> sequences;
    for (std::uint32_t entry = 0; entry < pages_->end; ++entry) {
        const Pages::Claim& claim = pages_->claims.at(entry);
        if (claim.sequence != 0 && claim.taker == taker) {
            sequences.push_back(claim.sequence);
        }
    }
    return sequences;
}

std::set<std::uint64_t> ClaimsFile::reserved() {
    std::set<std::uint64_t> sequences;
    for (std::uint32_t taker = 0; is_ours() && taker < kMaxTakers; ++taker) {
        if (pages_->takers.at(taker) != 0 && lives(taker)) {
            for (const std::uint64_t sequence : reserved_by(taker)) {
                sequences.insert(sequence);
            }
        }
    }
    return sequences;
}

bool ClaimsFile::is_reserved(std::uint64_t sequence) const {
    if (sequence > pages_->highest) {
        return false;
    }
    const std::span used(pages_->claims.data(), pages_->end);
    return std::any_of(used.begin(), used.end(), [&](const auto& claim) { return claim.sequence == sequence; });
}

std::uint32_t ClaimsFile::reserve(std::uint64_t sequence, std::uint32_t taker) {
    std::uint64_t entry = pages_->free;
    while (entry < pages_->end && pages_->claims.at(entry).sequence != 0) {
        ++entry;
    }
    pages_->free = entry;
    if (entry == kMaxReserved) {
        throw Error(Errc::kFull, std::to_string(kMaxReserved) +
                                     " messages of the queue are taken and neither committed nor given back, more "
                                     "cannot be: commit first, here or in the other programs that take from it");
    }
    if (entry == pages_->end) {
        pages_->end = entry + 1;
    }
    if (sequence > pages_->highest) {
        pages_->highest = sequence;
    }
    pages_->claims.at(entry).taker = taker;
    pages_->claims.at(entry).sequence = sequence;
    return static_cast<std::uint32_t>(entry);
}

void ClaimsFile::end(std::uint32_t entry, bool back) {
    Pages::Claim& claim = pages_->claims.at(entry);
    if (back) {
        if (claim.sequence < pages_->next) {
            pages_->next = claim.sequence.load();
        }
        ++pages_->times_back;
    }
    if (entry < pages_->free) {
        pages_->free = entry;
    }
    claim.sequence = 0;
    while (pages_->end > 0 && pages_->claims.at(pages_->end - 1).sequence == 0) {
        --pages_->end;
    }
    if (pages_->end == 0) {
        pages_->highest = 0;
    }
}

std::uint64_t ClaimsFile::next(std::uint64_t releases) const {
    return pages_->releases == releases ? pages_->next.load() : 0;
}

void ClaimsFile::set_next(std::uint64_t sequence, std::uint64_t releases) {
    if (pages_->releases != releases) {
        ++pages_->times_back;
        pages_->next = 0; // first: it must hold whatever of these two comes to be
        pages_->releases = releases;
    }
    pages_->next = sequence;
}

std::uint64_t ClaimsFile::times_back() const {
    return pages_->times_back;
}

} // namespace kvr
