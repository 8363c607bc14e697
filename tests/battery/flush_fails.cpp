// SPDX-License-Identifier: MIT
// Preloaded into any program of the field: while the file that KVR_FLUSH_FAILS names exists, its disk is in trouble.
//
// The file is empty: nothing can be flushed (EIO). Or it holds "ERROR ONE_IN [CALL]": one in so many calls that change
// plain files fails with that number, by chance; of one sort only when CALL names it (write, fsync, linkat, open), and
// slowly when "MILLISECONDS" follow. With ERROR 0 nothing fails, and each flush takes ONE_IN milliseconds.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

namespace {

struct Trouble {
    int error = EIO;
    unsigned one_in = 1;
    std::array<char, 8> call{"fsync"};
    unsigned milliseconds = 0;
};

/// By system calls of its own: open is among those that fail.
bool read_trouble(Trouble& trouble) {
    const char* file = std::getenv("KVR_FLUSH_FAILS"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    const auto fd =
        file == nullptr ? -1 : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, file, O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        return false;
    }
    std::array<char, 64> text{};
    const ssize_t count = ::read(fd, text.data(), text.size() - 1);
    ::close(fd);
    if (count > 0) {
        trouble.call = {};
        (void)std::sscanf(text.data(), "%d %u %7s %u", &trouble.error, &trouble.one_in, trouble.call.data(),
                          &trouble.milliseconds);
    }
    return true;
}

bool is_unlucky(unsigned one_in) {
    static std::atomic<std::uint64_t> state{static_cast<std::uint64_t>(::getpid())};
    std::uint64_t x = state += 0x9E3779B97F4A7C15U; // splitmix64
    x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27U)) * 0x94D049BB133111EBU;
    return (x ^ (x >> 31U)) % one_in == 0;
}

/// Whether this call fails; errno says why.
bool fails(const char* call) {
    const int before = errno;
    Trouble trouble;
    const bool concerned =
        read_trouble(trouble) && (trouble.call[0] == '\0' || std::strcmp(trouble.call.data(), call) == 0);
    errno = before;
    if (concerned && trouble.error == 0 && std::strcmp(call, "fsync") == 0) {
        trouble.milliseconds = trouble.one_in;
    }
    if (concerned && trouble.milliseconds != 0) {
        const timespec time{trouble.milliseconds / 1000, static_cast<long>(trouble.milliseconds % 1000) * 1'000'000};
        (void)::nanosleep(&time, nullptr);
    }
    if (!concerned || trouble.error == 0 || !is_unlucky(trouble.one_in)) {
        return false;
    }
    errno = trouble.error;
    return true;
}

/// The program's own words and its sockets stay.
bool fails_on(const char* call, int fd) {
    struct stat status {};
    return fd > STDERR_FILENO && ::fstat(fd, &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) &&
           fails(call);
}

template <class Call>
Call next(Call /*type*/, const char* name) {
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name)); // NOLINT: so dlsym is used
}

bool fails_to_open(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY && fails("open");
}

mode_t mode_of(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

#define KVR_REPLACES extern "C" __attribute__((visibility("default")))

KVR_REPLACES int fdatasync(int fd) {
    return fails_on("fsync", fd) ? -1 : next(&fdatasync, "fdatasync")(fd);
}

KVR_REPLACES int fsync(int fd) {
    return fails_on("fsync", fd) ? -1 : next(&fsync, "fsync")(fd);
}

KVR_REPLACES ssize_t write(int fd, const void* bytes, size_t count) {
    return fails_on("write", fd) ? -1 : next(&write, "write")(fd, bytes, count);
}

KVR_REPLACES ssize_t writev(int fd, const iovec* pieces, int count) {
    return fails_on("write", fd) ? -1 : next(&writev, "writev")(fd, pieces, count);
}

KVR_REPLACES ssize_t pwrite(int fd, const void* bytes, size_t count, off_t at) {
    return fails_on("write", fd) ? -1 : next(&pwrite, "pwrite")(fd, bytes, count, at);
}

KVR_REPLACES int linkat(int from_fd, const char* from, int to_fd, const char* to, int flags) {
    return fails("linkat") ? -1 : next(&linkat, "linkat")(from_fd, from, to_fd, to, flags);
}

KVR_REPLACES int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return fails_to_open(flags) ? -1 : next(&open, "open")(path, flags, mode);
}

KVR_REPLACES int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return fails_to_open(flags) ? -1 : next(&openat, "openat")(folder, path, flags, mode);
}
