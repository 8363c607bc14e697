// SPDX-License-Identifier: MIT
// The calls carry the names of the C library's as labels of the assembler only: no header's declaration is in the way.
#include "stopped_call.h"

#include <type_traits>

#include <dlfcn.h>
#include <sys/uio.h>

#include "support/folder.h"

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

void await_stopped(const Child& child) {
    siginfo_t how{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &how, WSTOPPED | WEXITED | WNOWAIT), 0);
    EXPECT_EQ(how.si_code, CLD_STOPPED);
}

void await_waiting(pid_t pid) {
    const std::string file = "/proc/" + std::to_string(pid) + "/syscall";
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    for (long call = -1; call != SYS_fcntl && call != SYS_clock_nanosleep;) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::istringstream(contents(file)) >> call;
    }
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
extern "C" __attribute__((visibility("default"))) ssize_t on_pwritev(int fd, const iovec* parts, int count,
                                                                     off_t at) __asm__("pwritev");
extern "C" ssize_t on_pwritev(int fd, const iovec* parts, int count, off_t at) {
    return pass("pwritev", fd, parts, count, at);
}

} // namespace kvr::test
