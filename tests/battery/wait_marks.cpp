// SPDX-License-Identifier: MIT
// Preloaded into a worker: makes its pauses and the alarm of one second short, and writes a line into its log each time
// it begins to wait for a message, when its signals are held already. So the order of the lines tells which signals
// came in the wait.
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED unsigned sleep(unsigned /*seconds*/) {
    const timespec pause{0, 1'000'000};
    ::nanosleep(&pause, nullptr);
    return 0;
}

EXPORTED unsigned alarm(unsigned seconds) noexcept {
    constexpr suseconds_t kShort = 20'000;
    const itimerval limit{{0, 0}, {seconds == 1 ? 0 : static_cast<time_t>(seconds), seconds == 1 ? kShort : 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
    return 0;
}

EXPORTED int ppoll(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask) {
    constexpr char kMark[] = "battery: waits\n";
    constexpr std::size_t kSystemMaskSize = 8;
    static const int log = ::open(std::getenv("KVR_BATTERY_LOG"), O_WRONLY | O_APPEND | O_CLOEXEC);
    [[maybe_unused]] const ssize_t wrote = ::write(log, kMark, sizeof kMark - 1);
    timespec copy{};
    if (limit != nullptr) {
        copy = *limit;
    }
    return static_cast<int>(
        ::syscall(SYS_ppoll, entries, count, limit != nullptr ? &copy : nullptr, mask, kSystemMaskSize));
}
