// SPDX-License-Identifier: MIT
// The calls carry the names of the C library's as labels of the assembler only: no header's declaration is in the way.
#include "stopped_call.h"

#include <dlfcn.h>

namespace kvr::test {
namespace {

bool g_stop = false;
int g_error = 0;

template <class Buffer>
ssize_t pass(const char* name, int fd, Buffer* buffer, std::size_t size, off_t at) {
    if (std::exchange(g_stop, false)) {
        ::raise(SIGSTOP);
        if (g_error != 0) {
            errno = g_error;
            return -1;
        }
    }
    using Call = ssize_t (*)(int, Buffer*, std::size_t, off_t);
    return reinterpret_cast<Call>(::dlsym(RTLD_NEXT, name))(fd, buffer, size, at); // NOLINT
}

} // namespace

void stop_at_next_call(int error) {
    g_error = error;
    g_stop = true;
}

void await_stopped(const Child& child) {
    siginfo_t how{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &how, WSTOPPED | WEXITED | WNOWAIT), 0);
    EXPECT_EQ(how.si_code, CLD_STOPPED);
}

extern "C" __attribute__((visibility("default"))) ssize_t on_pread(int fd, void* buffer, std::size_t size,
                                                                   off_t at) __asm__("pread");
extern "C" ssize_t on_pread(int fd, void* buffer, std::size_t size, off_t at) {
    return pass("pread", fd, buffer, size, at);
}
extern "C" __attribute__((visibility("default"))) ssize_t on_pwrite(int fd, const void* buffer, std::size_t size,
                                                                    off_t at) __asm__("pwrite");
extern "C" ssize_t on_pwrite(int fd, const void* buffer, std::size_t size, off_t at) {
    return pass("pwrite", fd, buffer, size, at);
}

} // namespace kvr::test
