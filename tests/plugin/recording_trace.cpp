// SPDX-License-Identifier: MIT
// The trace: a file in memory to which every process of a run appends its entries, each with one write.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "recording_host.h"

namespace kvr::test {

namespace {

const int file = [] {
    const int made = memfd_create("trace", 0);
    fcntl(made, F_SETFL, O_APPEND);
    return made;
}();

} // namespace

void trace(char kind, const char* fmt, ...) {
    const int saved = errno;
    char entry[2300];
    size_t used = static_cast<size_t>(snprintf(entry, sizeof entry, "%d %c ", getpid(), kind));
    va_list ap;
    va_start(ap, fmt);
    used += static_cast<size_t>(vsnprintf(entry + used, sizeof entry - used, fmt, ap));
    va_end(ap);
    used = std::min(used, sizeof entry - 1) + 1; // the NUL ends the entry
    if (write(file, entry, used) != static_cast<ssize_t>(used)) {
        _exit(99);
    }
    errno = saved;
}

void trace_reset() {
    if (ftruncate(file, 0) != 0) {
        abort();
    }
}

std::vector<Entry> trace_entries() {
    struct stat info {};
    fstat(file, &info);
    std::string whole(static_cast<size_t>(info.st_size), '\0');
    whole.resize(static_cast<size_t>(pread(file, whole.data(), whole.size(), 0)));
    std::vector<Entry> all;
    for (size_t at = 0; at < whole.size(); at = whole.find('\0', at) + 1) {
        int pid = 0;
        char kind = 0;
        int text = 0;
        sscanf(&whole[at], "%d %c%n", &pid, &kind, &text);
        all.push_back({pid, kind, &whole[at + static_cast<size_t>(text) + 1]});
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
