// SPDX-License-Identifier: MIT
#include "stopped_call.h"

#include <cerrno>
#include <csignal>
#include <type_traits>
#include <utility>

#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include "kavutil/export.h"

namespace kvr::test {
namespace {

bool g_stop = false;
int g_error = 0;
int g_failing = 0;
bool g_head_is_last = false;
constexpr off_t kEndOfHeads = 8192;

template <class Buffer, class Size>
ssize_t pass(const char* name, int fd, Buffer* buffer, Size size, off_t at) {
    if (std::exchange(g_stop, false)) {
        ::raise(SIGSTOP);
        if (g_error != 0) {
            errno = g_error;
            return -1;
        }
    }
    using Call = ssize_t (*)(int, Buffer*, Size, off_t);
    const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, name)); // NOLINT
    if (std::is_const_v<Buffer> && at < kEndOfHeads && std::exchange(g_head_is_last, false)) {
        g_failing = call(fd, buffer, size, at) < 0 ? errno : EIO;
    }
    if (g_failing != 0) {
        errno = g_failing;
        return -1;
    }
    return call(fd, buffer, size, at);
}

} // namespace

void stop_at_next_call(int error) {
    g_error = error;
    g_stop = true;
}

void fail_calls(int error) {
    g_failing = error;
}

void fail_after_next_head() {
    g_head_is_last = true;
}

} // namespace kvr::test

extern "C" KVR_EXPORT ssize_t pread(int fd, void* buffer, std::size_t size, off_t at) {
    return kvr::test::pass("pread", fd, buffer, size, at);
}
extern "C" KVR_EXPORT ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t at) {
    return kvr::test::pass("pwrite", fd, buffer, size, at);
}
extern "C" KVR_EXPORT ssize_t pwritev(int fd, const iovec* parts, int count, off_t at) {
    return kvr::test::pass("pwritev", fd, parts, count, at);
}
