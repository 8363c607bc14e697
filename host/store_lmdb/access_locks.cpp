// SPDX-License-Identifier: MIT
// The locks in front of those of LMDB, and how a process waits for them.
#include "store_lmdb/access_locks.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "store/lock_holder.h"
#include "store/permissions.h"
#include "store/system_error.h"
#include "store/waits.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kSayAfter{2};
/// Said again whenever the wait has doubled, and at least so often.
constexpr std::chrono::seconds kSayAgain{60};
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
/// Shared by all who have the store open.
constexpr off_t kOpenByte = 2;
/// For commands that are about to end.
constexpr std::chrono::seconds kAloneLimit{1};

struct flock bytes_lock(off_t byte, short type, off_t count = 1) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = count;
    return lock;
}

bool try_lock(int fd, int command, struct flock lock, const std::filesystem::path& folder) {
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

std::string name_of(pid_t holder) {
    return holder != 0 ? process_text(holder) : "another thread of this process";
}

/// The beginning of its command line.
std::string command_of(pid_t pid) {
    constexpr std::size_t kLongest = 80;
    std::string words;
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    for (char c = 0; words.size() < kLongest && file.get(c);) {
        words += c == '\0' ? ' ' : static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? '?' : c;
    }
    return words.empty() ? words : " (" + words.substr(0, words.find_last_not_of(' ') + 1) + ")";
}

void pause(Clock::duration waited) {
    const auto time = std::clamp<std::chrono::nanoseconds>(waited / kPausesPerWait, kShortestPause, kLongestPause);
    const timespec pause{0, time.count()};
    ::nanosleep(&pause, nullptr); // a signal may end it early: the lock is tried again
}

std::string whole_seconds(Clock::duration time) {
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

/// Returns when `take` does; before that says again and again, or throws kBusy with, what `holder` does to `folder`.
void wait_for(const std::function<bool(Clock::duration)>& take, const std::function<pid_t()>& holder, const char* doing,
              const std::filesystem::path& folder, milliseconds limit) {
    const Clock::time_point start = Clock::now();
    Clock::duration waited{};
    Clock::duration say_at = kSayAfter;
    for (; !take(waited); waited = Clock::now() - start) {
        const auto text = [&] {
            return name_of(holder()) + ", which " + doing + " " + folder.string() +
                   ": if it is stopped, let it go on (kill -CONT) or end it";
        };
        if (wait_is_over(waited, limit)) {
            throw Error(Errc::kBusy, "gave up waiting for " + text());
        }
        if (waited >= say_at) {
            tell((say_at == kSayAfter ? "waiting for " : "for " + whole_seconds(waited) + " waiting for ") + text());
            say_at += std::min<Clock::duration>(say_at, kSayAgain);
        }
        pause(waited);
    }
}

/// Whether `path` still leads to the file that is open.
bool is_same_file(int fd, const std::filesystem::path& path) {
    struct stat opened {};
    struct stat found {};
    return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &found) == 0 && opened.st_dev == found.st_dev &&
           opened.st_ino == found.st_ino;
}

} // namespace

OpeningLock::OpeningLock(const std::filesystem::path& folder, milliseconds limit)
    : fd_(open_allocated_file(folder / "open.lock", 0)) {
    const struct flock name = bytes_lock(kNameByte, F_WRLCK);
    const int fd = fd_.get();
    wait_for([&](Clock::duration) { return try_lock(fd, F_OFD_SETLK, bytes_lock(kLockedByte, F_WRLCK), folder); },
             [&] { return lock_holder(fd, name); }, "opens or closes", folder, limit);
    try_lock(fd, F_SETLK, name, folder);
}

StoreLock::StoreLock(std::filesystem::path folder)
    : folder_(std::move(folder)), fd_(open_allocated_file(folder_ / "write.lock", 0)) {
    share();
}

void StoreLock::share() {
    const struct flock shared = bytes_lock(kOpenByte, F_RDLCK);
    wait_for([&](Clock::duration) { return try_lock(fd_.get(), F_SETLK, shared, folder_); },
             [&] { return lock_holder(fd_.get(), shared); }, "deletes", folder_, kNoLimit);
    if (!is_same_file(fd_.get(), folder_ / "write.lock")) {
        throw Error(Errc::kNotFound, folder_.string() + " was deleted while it was opened: create the queue manager "
                                                        "first, or try again where that was done");
    }
}

void StoreLock::take_alone() {
    const struct flock alone = bytes_lock(kOpenByte, F_WRLCK);
    for (const Clock::time_point start = Clock::now(); !try_lock(fd_.get(), F_SETLK, alone, folder_);) {
        const pid_t holder = lock_holder(fd_.get(), alone);
        if (holder != 0 && Clock::now() - start > kAloneLimit) {
            throw Error(Errc::kBusy, folder_.string() + " is open in " + name_of(holder) + command_of(holder) +
                                         ": end that process first ('kvr stop' where it runs a channel), then try "
                                         "again");
        }
        pause(Clock::now() - start);
    }
}

bool StoreLock::try_lock_bytes(bool may_be_next, bool& is_next) {
    std::unique_lock guard(threads_, std::try_to_lock);
    if (!guard.owns_lock()) {
        return false;
    }
    if (!try_lock(fd_.get(), F_SETLK, bytes_lock(kLockedByte, F_WRLCK, is_next ? 1 : kNextByte + 1), folder_)) {
        is_next = is_next || (may_be_next && try_lock(fd_.get(), F_SETLK, bytes_lock(kNextByte, F_WRLCK), folder_));
        return false;
    }
    unlock_bytes(fd_.get(), kNextByte);
    guard.release();
    return true;
}

void StoreLock::lock() {
    // Who comes next waits, too: it is named only where nobody has the turn.
    const auto holder = [this] {
        const pid_t writer = lock_holder(fd_.get(), bytes_lock(kLockedByte, F_WRLCK));
        return writer != 0 ? writer : lock_holder(fd_.get(), bytes_lock(kNextByte, F_WRLCK));
    };
    bool is_next = false;
    try {
        wait_for([&](Clock::duration waited) { return try_lock_bytes(waited >= kNextAfter, is_next); }, holder,
                 "writes to", folder_, kNoLimit);
    } catch (...) {
        if (is_next) {
            unlock_bytes(fd_.get(), kNextByte);
        }
        throw;
    }
}

pid_t StoreLock::frozen_writer() const {
    const pid_t writer = lock_holder(fd_.get(), bytes_lock(kLockedByte, F_WRLCK));
    return writer > 0 && process_facts(writer).starts_with(" T ") ? writer : 0;
}

void StoreLock::unlock() {
    unlock_bytes(fd_.get(), kLockedByte, kNextByte + 1);
    threads_.unlock();
}

ByteLock::ByteLock(int fd, off_t byte, std::filesystem::path path, const char* doing)
    : fd_(fd), byte_(byte), path_(std::move(path)), doing_(doing) {}

void ByteLock::lock() {
    const struct flock wanted = bytes_lock(byte_, F_WRLCK);
    const auto take = [&](Clock::duration) {
        std::unique_lock guard(threads_, std::try_to_lock);
        if (!guard.owns_lock() || !try_lock(fd_, F_SETLK, wanted, path_)) {
            return false;
        }
        guard.release();
        return true;
    };
    if (!take({})) { // mostly it is free: no clock is asked
        wait_for(
            take, [&] { return lock_holder(fd_, wanted); }, doing_, path_, kNoLimit);
    }
}

void ByteLock::unlock() {
    unlock_bytes(fd_, byte_);
    threads_.unlock();
}

} // namespace kvr
