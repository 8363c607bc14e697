// SPDX-License-Identifier: MIT
#include "this_process.h"

#include <atomic>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace kvr {

namespace {

/// A page that a forked child finds zeroed, however it was forked. Null where the system has none.
std::atomic<pid_t>* make_page() noexcept {
    constexpr std::size_t kSize = 4096;
    void* const page = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool wiped = page != MAP_FAILED && ::madvise(page, kSize, MADV_WIPEONFORK) == 0;
    return wiped ? new (page) std::atomic<pid_t>(0) : nullptr;
}

} // namespace

pid_t this_process() noexcept {
    static std::atomic<pid_t>* const page = make_page();
    pid_t process = page != nullptr ? page->load(std::memory_order_relaxed) : 0;
    if (process == 0) {
        process = ::getpid();
        if (page != nullptr) {
            page->store(process, std::memory_order_relaxed);
        }
    }
    return process;
}

} // namespace kvr
