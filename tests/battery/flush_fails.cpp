// SPDX-License-Identifier: MIT
// Preloaded into any program of the field: while the file that KVR_FLUSH_FAILS names exists, data cannot be flushed to
// the disk.
#include <cerrno>
#include <cstdlib>

#include <dlfcn.h>
#include <unistd.h>

namespace {

using Flush = int (*)(int);

int flush(const char* name, int fd) {
    const char* file = std::getenv("KVR_FLUSH_FAILS"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    if (file != nullptr && access(file, F_OK) == 0) {
        errno = EIO;
        return -1;
    }
    return reinterpret_cast<Flush>(dlsym(RTLD_NEXT, name))(fd);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
    return flush("fdatasync", fd);
}

extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    return flush("fsync", fd);
}
