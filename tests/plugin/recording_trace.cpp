// SPDX-License-Identifier: MIT
// The trace: slots in memory that every process of a run shares, filled without a lock.
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "recording_host.h"

namespace kvr::test {

namespace {

struct Slot {
    std::atomic<bool> ready;
    pid_t pid;
    char kind;
    char text[2200];
};
struct Trace {
    static constexpr unsigned kSlots = 16384;
    std::atomic<unsigned> used;
    Slot slot[kSlots];
};

Trace* shared() {
    static Trace* map = static_cast<Trace*>(
        mmap(nullptr, sizeof(Trace), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    return map;
}

} // namespace

void trace(char kind, const char* fmt, ...) {
    const unsigned i = shared()->used.fetch_add(1);
    if (i >= Trace::kSlots) {
        _exit(99);
    }
    Slot& slot = shared()->slot[i];
    slot.pid = getpid();
    slot.kind = kind;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(slot.text, sizeof slot.text, fmt, ap);
    va_end(ap);
    slot.ready = true;
}

void trace_reset() {
    madvise(shared(), sizeof(Trace), MADV_REMOVE);
    shared()->used = 0;
}

std::vector<Entry> trace_entries() {
    std::vector<Entry> all;
    for (unsigned i = 0; i < shared()->used; ++i) {
        if (shared()->slot[i].ready) { // a watcher can be killed in the middle of an entry
            all.push_back({shared()->slot[i].pid, shared()->slot[i].kind, shared()->slot[i].text});
        }
    }
    return all;
}

bool wait_for(const std::string& text, int times) {
    for (int i = 0; i < 10000; ++i) {
        const auto all = trace_entries();
        if (std::count_if(all.begin(), all.end(),
                          [&](const Entry& e) { return e.text.find(text) != std::string::npos; }) >= times) {
            return true;
        }
        poll(nullptr, 0, 1);
    }
    return false;
}

} // namespace kvr::test
