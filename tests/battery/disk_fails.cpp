// SPDX-License-Identifier: MIT
// Preloaded into the programs of a history: makes short pauses and the alarm of one second shorter, and the disk fail
// while the file that KVR_TROUBLE names exists. It holds "CALL ERROR ONE_IN [MILLISECONDS]": one in so many calls that
// change plain files fails with that number, by chance and after that time; CALL is write, fsync or any. With ERROR 0
// it only takes the time.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#define KVR_REPLACES extern "C" __attribute__((visibility("default")))

namespace {

constexpr std::chrono::milliseconds kPause(20);
constexpr long kNanoseconds = std::chrono::nanoseconds(kPause).count();
constexpr unsigned kLong = 100; ///< seconds: from here on a pause stays as it is

struct Trouble {
    std::array<char, 8> call{};
    int error = 0;
    unsigned one_in = 1;
    unsigned milliseconds = 0;
};

Trouble read_trouble() {
    const int before = errno;
    Trouble trouble;
    std::array<char, 64> text{};
    const int fd = ::open(std::getenv("KVR_TROUBLE"), O_RDONLY | O_CLOEXEC); // NOLINT: nobody changes it
    if (::read(fd, text.data(), text.size() - 1) > 0) {
        (void)std::sscanf(text.data(), "%7s %d %u %u", trouble.call.data(), &trouble.error, &trouble.one_in,
                          &trouble.milliseconds);
    }
    ::close(fd);
    errno = before;
    return trouble;
}

/// Whether this call fails; errno says why. The program's own words and its sockets stay.
bool fails(const char* call, int fd) {
    thread_local std::minstd_rand luck(static_cast<unsigned>(::gettid()));
    struct stat status {};
    if (fd <= STDERR_FILENO || ::fstat(fd, &status) != 0 || !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
        return false;
    }
    const Trouble trouble = read_trouble();
    if (trouble.call.data() != std::string_view(call) && trouble.call.data() != std::string_view("any")) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(trouble.milliseconds));
    errno = trouble.error;
    return trouble.error != 0 && luck() % trouble.one_in == 0;
}

} // namespace

KVR_REPLACES unsigned sleep(unsigned seconds) {
    const timespec pause{seconds < kLong ? 0 : time_t{seconds}, seconds < kLong ? kNanoseconds : 0};
    return ::nanosleep(&pause, nullptr) == 0 ? 0 : 1; // a signal ends it
}
KVR_REPLACES unsigned alarm(unsigned seconds) noexcept {
    const suseconds_t pause = std::chrono::microseconds(kPause).count();
    const itimerval limit{{0, 0}, {seconds == 1 ? 0 : time_t{seconds}, seconds == 1 ? pause : 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
    return 0;
}
KVR_REPLACES int fdatasync(int fd) {
    return fails("fsync", fd) ? -1 : static_cast<int>(::syscall(SYS_fdatasync, fd));
}
KVR_REPLACES int fsync(int fd) {
    return fails("fsync", fd) ? -1 : static_cast<int>(::syscall(SYS_fsync, fd));
}
KVR_REPLACES ssize_t write(int fd, const void* bytes, size_t count) {
    return fails("write", fd) ? -1 : ::syscall(SYS_write, fd, bytes, count);
}
KVR_REPLACES ssize_t writev(int fd, const iovec* pieces, int count) {
    return fails("write", fd) ? -1 : ::syscall(SYS_writev, fd, pieces, count);
}
KVR_REPLACES ssize_t pwrite(int fd, const void* bytes, size_t count, off_t at) {
    return fails("write", fd) ? -1 : ::syscall(SYS_pwrite64, fd, bytes, count, at);
}
