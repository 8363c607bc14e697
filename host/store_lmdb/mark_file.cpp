// SPDX-License-Identifier: MIT
// The mark of a queue: a page of memory shared by all processes through a file.
#include "store_lmdb/mark_file.h"

#include <atomic>
#include <cerrno>

#include <sys/mman.h>

#include "store/permissions.h"
#include "store/system_error.h"
#include "store_lmdb/boot_id.h"

namespace kvr {

namespace {

constexpr std::uint64_t kMagic = 0x31304b52414d564bULL; // "KVMARK01"
constexpr std::size_t kPageSize = 4096;

} // namespace

struct MarkFile::Page {
    std::uint64_t magic;
    std::uint64_t store_id;
    std::uint64_t queue_id;
    BootId boot;
    std::atomic<std::uint64_t> generation;
    std::atomic<std::uint64_t> first;
    alignas(64) std::atomic<std::uint64_t> through; ///< moved for each message
    std::atomic<std::uint64_t> in_hand;
    alignas(64) std::atomic<std::uint32_t> waiting; ///< read by every put
    std::atomic<std::uint32_t> kept;                ///< the group
    std::atomic<std::int64_t> used_at;
};

MarkFile::MarkFile(const std::filesystem::path& path, std::uint64_t store_id, std::uint32_t queue_id)
    : store_id_(store_id), queue_id_(queue_id) {
    static_assert(sizeof(Page) <= kPageSize);
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
    const UniqueFd fd = open_allocated_file(path, kPageSize);
    void* mapped = ::mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        throw_system("map", path, errno);
    }
    page_ = static_cast<Page*>(mapped);
}

MarkFile::~MarkFile() {
    ::munmap(page_, kPageSize);
}

bool MarkFile::is_ours() const {
    return page_->magic == kMagic && page_->store_id == store_id_ && page_->queue_id == queue_id_ &&
           page_->boot == boot_id();
}

std::uint64_t MarkFile::generation() const {
    return is_ours() ? page_->generation.load(std::memory_order_acquire) : 0;
}

UsedRange MarkFile::used(std::uint64_t generation) const {
    if (!is_ours() || page_->generation.load(std::memory_order_acquire) != generation) {
        return {};
    }
    const std::uint64_t through = page_->through.load(std::memory_order_acquire);
    const std::uint64_t first = page_->first.load(std::memory_order_acquire); // was written before `through`
    if (through == 0 || first == 0 || page_->generation.load(std::memory_order_acquire) != generation) {
        return {};
    }
    return {.first = first, .through = through};
}

std::uint64_t MarkFile::in_hand() const {
    return is_ours() ? page_->in_hand.load(std::memory_order_acquire) : 0;
}

bool MarkFile::is_kept() const {
    return is_ours() && page_->kept.load(std::memory_order_acquire) != 0;
}

void MarkFile::begin_group(std::uint64_t generation, bool kept) {
    page_->through.store(0, std::memory_order_release);
    page_->kept.store(kept ? 1 : 0, std::memory_order_release);
    page_->first.store(0, std::memory_order_release);
    page_->generation.store(generation, std::memory_order_release);
    if (!is_ours()) {
        // The identity comes last: a mark that is only half set up is nobody's.
        page_->magic = 0;
        std::atomic_thread_fence(std::memory_order_release);
        page_->store_id = store_id_;
        page_->queue_id = queue_id_;
        page_->boot = boot_id();
        std::atomic_thread_fence(std::memory_order_release);
        page_->magic = kMagic;
    }
}

void MarkFile::set_used(UsedRange range) {
    if (page_->first.load(std::memory_order_relaxed) != range.first) {
        page_->first.store(range.first, std::memory_order_release);
    }
    page_->through.store(range.through, std::memory_order_release);
}

std::int64_t MarkFile::used_at() const {
    return page_->used_at.load(std::memory_order_relaxed);
}

void MarkFile::set_used_at(std::int64_t time) {
    page_->used_at.store(time, std::memory_order_relaxed);
}

void MarkFile::set_in_hand(std::uint64_t sequence) {
    page_->in_hand.store(sequence, std::memory_order_release);
}

void MarkFile::set_waiting(bool waiting) {
    page_->waiting.store(waiting ? 1 : 0, std::memory_order_seq_cst);
}

bool MarkFile::claim_wake_up() {
    // Pairs with the drainer's "set the word, look again": the message was committed before this load, so either the
    // drainer's look finds it or this load finds the word.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return page_->waiting.load(std::memory_order_seq_cst) != 0 &&
           page_->waiting.exchange(0, std::memory_order_seq_cst) != 0;
}

} // namespace kvr
