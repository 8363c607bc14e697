// SPDX-License-Identifier: MIT
// Preloaded into any program of the field: while the file that KVR_HEAD_FAILS names exists, one write of a store's head
// page fails, and takes the file away. Where the file says "told" the write was done and is told to have failed, and
// the one that puts the old head back fails too; "again": so does the next pair of writes; anything else: it was not
// done.
#include <cerrno>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr off_t kEndOfHeads = 8192;

ssize_t write_at(int fd, const void* data, size_t size, off_t at) {
    using Write = ssize_t (*)(int, const void*, size_t, off_t);
    return reinterpret_cast<Write>(dlsym(RTLD_NEXT, "pwrite"))(fd, data, size, at); // NOLINT: so dlsym is used
}

bool head_fails(int fd, const void* data, size_t size, off_t at) {
    static int left = 0; // writes that are told to fail, done and not done by turns
    if (left > 0) {
        return --left % 2 == 0 || write_at(fd, data, size, at) >= 0;
    }
    const char* file = std::getenv("KVR_HEAD_FAILS"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    const int mode = file == nullptr ? -1 : open(file, O_RDONLY | O_CLOEXEC);
    if (mode < 0) {
        return false;
    }
    char letter = 0;
    left = read(mode, &letter, 1) != 1 ? 0 : letter == 't' ? 1 : letter == 'a' ? 3 : 0;
    close(mode);
    unlink(file);
    return left == 0 || write_at(fd, data, size, at) >= 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    if (at < kEndOfHeads && head_fails(fd, data, size, at)) {
        errno = EIO;
        return -1;
    }
    return write_at(fd, data, size, at);
}
