// SPDX-License-Identifier: MIT
// The locks in front of those of LMDB, and how a process waits for them.
#include "access_locks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "permissions.h"
#include "stop_point.h"
#include "store.h"
#include "system_error.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kSayAfter{2};
/// All waits of a process together after it was asked to stop: the rest of the second is for its shutdown.
constexpr milliseconds kStopBudget{500};
/// Each of them after that all the same: as long as a commit of somebody else usually lasts.
constexpr milliseconds kLeastWait{50};
/// Waits are polled: a blocking one could not be bounded without a signal. Short at first, for a holder that commits.
constexpr std::chrono::microseconds kShortestPause{50};
constexpr std::chrono::microseconds kLongestPause{1000};
constexpr int kPausesPerWait = 16;

/// Who has waited for so long to write comes next: those who write again and again would leave it no moment.
constexpr milliseconds kNextAfter{10};

constexpr off_t kLockedByte = 0;
/// A lock of the open file does not say whose it is; a lock of the process beside it does.
constexpr off_t kNameByte = 1;
/// Of who comes next to write. A writer has it for a moment, while it begins.
constexpr off_t kNextByte = 1;

std::atomic<Notice> g_notice{nullptr};
std::atomic<milliseconds> g_limit{kNoLimit};
std::atomic<Clock::rep> g_stop_end{0}; ///< end of kStopBudget, 0 before a wait saw the stop

struct flock bytes_lock(off_t byte, short type, off_t count = 1) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = count;
    return lock;
}

bool try_lock(int fd, int command, off_t byte, const std::filesystem::path& folder, off_t count = 1) {
    struct flock lock = bytes_lock(byte, F_WRLCK, count);
    if (::fcntl(fd, command, &lock) == 0) {
        return true;
    }
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
        throw_system("lock", folder, errno);
    }
    return false;
}

/// The system may want memory for a part of a lock that is released: a try that failed is made again.
void unlock_bytes(int fd, off_t byte, off_t count = 1) {
    struct flock lock = bytes_lock(byte, F_UNLCK, count);
    for (int tries = 3; ::fcntl(fd, F_SETLK, &lock) != 0 && tries > 0; --tries) {
    }
}

std::string holder_of(int fd, off_t byte, off_t count = 1) {
    struct flock lock = bytes_lock(byte, F_WRLCK, count);
    const bool known = ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    return known ? "process " + std::to_string(lock.l_pid) : "another thread or process";
}

/// A stop that the process holds back counts too: it waits here instead of taking it.
bool stop_asked() {
    sigset_t held;
    return stop_pending() ||
           (::sigpending(&held) == 0 && (sigismember(&held, SIGTERM) == 1 || sigismember(&held, SIGINT) == 1));
}

bool is_over(Clock::duration waited, milliseconds limit) {
    if (waited >= std::min<Clock::duration>(limit, g_limit.load())) {
        return true;
    }
    // Once seen it counts for good: who holds the signal back may take it before the next wait.
    if (g_stop_end == 0 && !stop_asked()) {
        return false;
    }
    const Clock::rep now = Clock::now().time_since_epoch().count();
    Clock::rep unset = 0;
    g_stop_end.compare_exchange_strong(unset, now + Clock::duration(kStopBudget).count());
    return now >= g_stop_end && waited >= kLeastWait;
}

void pause(Clock::duration waited) {
    const auto time = std::clamp<std::chrono::nanoseconds>(waited / kPausesPerWait, kShortestPause, kLongestPause);
    const timespec pause{0, time.count()};
    ::nanosleep(&pause, nullptr); // a signal may end it early: the lock is tried again
}

/// Returns when `take` does; before that says after a while, or throws kBusy with, what `holder` does to `folder`.
void wait_for(const std::function<bool(Clock::duration)>& take, const std::function<std::string()>& holder,
              const char* doing, const std::filesystem::path& folder, milliseconds limit) {
    const Clock::time_point start = Clock::now();
    Clock::duration waited{};
    for (bool said = false; !take(waited); waited = Clock::now() - start) {
        const auto text = [&] {
            return holder() + ", which " + doing + " " + folder.string() +
                   ": if it is stopped, let it go on (kill -CONT) or end it";
        };
        if (is_over(waited, limit)) {
            throw Error(Errc::kBusy, "gave up waiting for " + text());
        }
        if (waited >= kSayAfter && !said) {
            said = true;
            tell("waiting for " + text());
        }
        pause(waited);
    }
}

} // namespace

void set_notice(Notice notice) {
    g_notice = notice;
}

void limit_waits(milliseconds limit) {
    g_limit = limit;
}

void tell(const std::string& line) {
    if (const Notice notice = g_notice) {
        notice(line);
    }
}

OpeningLock::OpeningLock(const std::filesystem::path& folder, milliseconds limit)
    : fd_(open_allocated_file(folder / "open.lock", 0)) {
    try {
        wait_for([&](Clock::duration) { return try_lock(fd_, F_OFD_SETLK, kLockedByte, folder); },
                 [&] { return holder_of(fd_, kNameByte); }, "opens or closes", folder, limit);
        try_lock(fd_, F_SETLK, kNameByte, folder);
    } catch (...) {
        ::close(fd_);
        throw;
    }
}

OpeningLock::~OpeningLock() {
    ::close(fd_);
}

WriterLock::WriterLock(std::filesystem::path folder)
    : folder_(std::move(folder)), fd_(open_allocated_file(folder_ / "write.lock", 0)) {}

WriterLock::~WriterLock() {
    ::close(fd_);
}

bool WriterLock::try_lock_bytes(bool may_be_next, bool& is_next) {
    std::unique_lock guard(threads_, std::try_to_lock);
    if (!guard.owns_lock()) {
        return false;
    }
    if (!try_lock(fd_, F_SETLK, kLockedByte, folder_, is_next ? 1 : kNextByte + 1)) {
        is_next = is_next || (may_be_next && try_lock(fd_, F_SETLK, kNextByte, folder_));
        return false;
    }
    unlock_bytes(fd_, kNextByte);
    guard.release();
    return true;
}

void WriterLock::lock() {
    bool is_next = false;
    try {
        wait_for([&](Clock::duration waited) { return try_lock_bytes(waited >= kNextAfter, is_next); },
                 [this] { return holder_of(fd_, kLockedByte, kNextByte + 1); }, "writes to", folder_, kNoLimit);
    } catch (...) {
        if (is_next) {
            unlock_bytes(fd_, kNextByte);
        }
        throw;
    }
}

void WriterLock::unlock() {
    unlock_bytes(fd_, kLockedByte, kNextByte + 1);
    threads_.unlock();
}

} // namespace kvr
