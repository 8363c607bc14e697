// SPDX-License-Identifier: MIT
// Preloaded into the programs of a history: makes pauses and the alarm of one second short, and the disk fail while the
// file that KVR_TROUBLE names exists. It holds "CALL ERROR ONE_IN [MILLISECONDS]": one in so many calls that change
// plain files fails with that number, by chance and after that time; CALL is write, fsync, linkat, open or any. With
// ERROR 0 it only takes the time.
//
// Or it holds what becomes of one write of a store's head page, which takes the file away: "head", it fails; "told", it
// is done and told to have failed, and the one that puts the old head back fails.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#define KVR_REPLACES extern "C" __attribute__((visibility("default")))

namespace {

constexpr off_t kEndOfHeads = 8192;
constexpr long kMilli = 1'000'000;
constexpr unsigned kPauseMs = 20;
constexpr unsigned kLong = 100; ///< seconds: from here on each of them

struct Trouble {
    std::array<char, 8> call{};
    int error = 0;
    unsigned one_in = 1;
    unsigned milliseconds = 0;
};

const char* file_of_trouble() {
    return std::getenv("KVR_TROUBLE"); // NOLINT(concurrency-mt-unsafe): nobody changes it
}

/// By system calls of its own: open and write are among those that fail.
Trouble read_trouble() {
    Trouble trouble;
    std::array<char, 64> text{};
    const auto fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, file_of_trouble(), O_RDONLY | O_CLOEXEC));
    if (fd >= 0 && ::read(fd, text.data(), text.size() - 1) > 0) {
        (void)std::sscanf(text.data(), "%7s %d %u %u", trouble.call.data(), &trouble.error, &trouble.one_in,
                          &trouble.milliseconds);
    }
    ::close(fd);
    return trouble;
}

bool is_unlucky(unsigned one_in) {
    static std::atomic<std::uint64_t> state{static_cast<std::uint64_t>(::getpid())};
    std::uint64_t x = state += 0x9E3779B97F4A7C15U; // splitmix64
    x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27U)) * 0x94D049BB133111EBU;
    return (x ^ (x >> 31U)) % one_in == 0;
}

void pause_for(unsigned milliseconds) {
    const timespec time{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * kMilli};
    (void)::nanosleep(&time, nullptr);
}

/// Whether this call fails; errno says why.
bool fails(const char* call) {
    const int before = errno;
    const Trouble trouble = read_trouble();
    errno = before;
    if (std::strcmp(trouble.call.data(), call) != 0 && std::strcmp(trouble.call.data(), "any") != 0) {
        return false;
    }
    pause_for(trouble.milliseconds);
    errno = trouble.error == 0 ? before : trouble.error;
    return trouble.error != 0 && is_unlucky(trouble.one_in);
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

/// Whether this write of a head page is to fail, done or not.
bool head_fails(int fd, const void* data, size_t size, off_t at) {
    static bool puts_back = false;
    if (puts_back) {
        puts_back = false;
        return true;
    }
    const Trouble trouble = read_trouble();
    const bool fails_undone = std::strcmp(trouble.call.data(), "head") == 0;
    puts_back = std::strcmp(trouble.call.data(), "told") == 0;
    return (fails_undone || (puts_back && next(&pwrite, "pwrite")(fd, data, size, at) >= 0)) &&
           ::unlink(file_of_trouble()) == 0;
}

bool fails_to_open(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY && fails("open");
}

mode_t mode_of(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

KVR_REPLACES unsigned sleep(unsigned seconds) {
    pause_for(seconds < kLong ? kPauseMs : seconds * kPauseMs);
    return 0;
}
KVR_REPLACES unsigned alarm(unsigned seconds) noexcept {
    const itimerval limit{{0, 0},
                          {seconds == 1 ? 0 : static_cast<time_t>(seconds), seconds == 1 ? kPauseMs * 1000 : 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
    return 0;
}
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
    if (at < kEndOfHeads && head_fails(fd, bytes, count, at)) {
        errno = EIO;
        return -1;
    }
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
