// SPDX-License-Identifier: MIT
#include "file_calls.h"

#include <cerrno>
#include <csignal>

#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include "kavutil/export.h"

namespace kvr::test {

std::function<ssize_t(int fd, off_t at, const FileCall& call)> g_file_call;

void fail_calls(int error) {
    g_file_call = nullptr;
    if (error != 0) {
        g_file_call = [error](int /*fd*/, off_t /*at*/, const FileCall& /*call*/) { return errno = error, -1; };
    }
}

void stop_at_next_call(int error) {
    g_file_call = [error](int /*fd*/, off_t /*at*/, const FileCall& call) {
        fail_calls(0);
        ::raise(SIGSTOP);
        return error != 0 ? (errno = error, -1) : call();
    };
}

namespace {

template <class Buffer, class Size>
ssize_t pass(const char* name, int fd, Buffer* buffer, Size size, off_t at) {
    const auto call = [&] {
        using Call = ssize_t (*)(int, Buffer*, Size, off_t);
        return reinterpret_cast<Call>(::dlsym(RTLD_NEXT, name))(fd, buffer, size, at); // NOLINT
    };
    const auto instead = g_file_call; // it may set another one
    return instead ? instead(fd, at, call) : call();
}

} // namespace
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
