// SPDX-License-Identifier: MIT
// Preloaded into the programs of the field, linked into the test itself: writes down every call that changes files. One
// lock for all processes is held over a call and its record, so that the order of the records is that of the calls.
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "power_record.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))
#define REAL(name) (reinterpret_cast<decltype(&::name)>(real(#name)))

namespace {

using kvr::test::PowerEvent;
using kvr::test::PowerRecord;

void* real(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

bool is_recorded(const char* path) {
    const char* folder = std::getenv(kvr::test::kPowerFolder); // NOLINT(concurrency-mt-unsafe): set once
    const std::size_t size = folder == nullptr ? 0 : std::strlen(folder);
    return size > 0 && std::strncmp(path, folder, size) == 0 && (path[size] == '/' || path[size] == '\0');
}

/// Handlers write too (their log), so no memory is allocated here.
bool is_recorded(int fd) {
    std::array<char, PATH_MAX> path{};
    std::array<char, 32> link{};
    const int saved = errno;
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    const bool found = ::readlink(link.data(), path.data(), path.size() - 1) > 0 && is_recorded(path.data());
    errno = saved;
    return found;
}

std::uint64_t inode_of(int fd) {
    struct stat info {};
    return ::fstat(fd, &info) == 0 ? info.st_ino : 0;
}

std::uint64_t inode_of(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

iovec part_of(const void* data, std::size_t size) {
    return {const_cast<void*>(data), size}; // NOLINT: read only
}

/// The lock and the file of the records, with signals held.
class Recording {
  public:
    Recording() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &mask_);
        const char* file = std::getenv(kvr::test::kPowerRecords); // NOLINT(concurrency-mt-unsafe): set once
        fd_ = REAL(open)(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        ::flock(fd_, LOCK_EX);
    }
    ~Recording() {
        ::close(fd_);
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    void add(PowerRecord record, const std::string& path, const std::string& other, const iovec* data,
             int count) const {
        record.path_size = static_cast<std::uint32_t>(path.size());
        record.other_size = static_cast<std::uint32_t>(other.size());
        std::array<iovec, IOV_MAX> parts{part_of(&record, sizeof record), part_of(path.data(), path.size()),
                                         part_of(other.data(), other.size())};
        std::size_t left = record.data_size;
        std::size_t used = 3;
        for (; left > 0 && count > 0; ++data, --count, left -= parts.at(used++).iov_len) {
            parts.at(used) = {data->iov_base, std::min(left, data->iov_len)};
        }
        [[maybe_unused]] const ssize_t wrote = REAL(writev)(fd_, parts.data(), static_cast<int>(used));
    }

  private:
    int fd_;
    sigset_t mask_{};
};

/// Makes the call and lets `describe` say what of it is recorded; errno stays that of the call.
template <class Call, class Describe>
auto record(Call call, Describe describe) {
    const Recording recording;
    const auto result = call();
    const int saved = errno;
    describe(recording, result);
    errno = saved;
    return result;
}

template <class Call>
ssize_t record_write(int fd, const iovec* data, int count, off_t offset, Call call) {
    if (!is_recorded(fd)) {
        return call();
    }
    return record(call, [&](const Recording& recording, ssize_t wrote) {
        const off_t at = offset >= 0 ? offset : ::lseek(fd, 0, SEEK_CUR) - wrote;
        const bool synced = (::fcntl(fd, F_GETFL) & O_DSYNC) != 0;
        if (wrote > 0 && at >= 0) { // a FIFO has no place
            recording.add({.event = synced ? PowerEvent::kSyncedWrite : PowerEvent::kWrite,
                           .data_size = static_cast<std::uint32_t>(wrote),
                           .inode = inode_of(fd),
                           .offset = static_cast<std::uint64_t>(at)},
                          {}, {}, data, count);
        }
    });
}

/// A call on a descriptor that returns 0 when it succeeded.
template <class Call>
int record_call(int fd, PowerEvent event, off_t size, Call call) {
    if (!is_recorded(fd)) {
        return call();
    }
    return record(call, [&](const Recording& recording, int result) {
        if (result == 0) {
            recording.add({.event = event, .inode = inode_of(fd), .offset = static_cast<std::uint64_t>(size)}, {}, {},
                          nullptr, 0);
        }
    });
}

std::string full_path(int folder, const char* path) {
    std::array<char, PATH_MAX> start{};
    const std::string link = folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder);
    const bool found = path[0] != '/' && ::readlink(link.c_str(), start.data(), start.size() - 1) > 0;
    return found ? std::string(start.data()) + "/" + path : path;
}

/// A call that changes an entry of a folder: `path`, or `other` where it makes a second one of that.
template <class Call>
int record_entry(PowerEvent event, const std::string& path, const std::string& other, Call call) {
    const std::string& target = other.empty() ? path : other;
    if (!is_recorded(target.c_str())) {
        return call();
    }
    bool was_there = false;
    const auto look_and_call = [&] {
        was_there = inode_of(target) != 0;
        return call();
    };
    return record(look_and_call, [&](const Recording& recording, int result) {
        if (result >= 0 && !(event == PowerEvent::kFile && was_there)) {
            recording.add(
                {.event = event, .inode = inode_of(target), .parent = inode_of(target.substr(0, target.rfind('/')))},
                path, other, nullptr, 0);
        }
    });
}

int record_open(int folder, const char* path, int flags, mode_t mode) {
    const auto call = [&] { return REAL(openat)(folder, path, flags, mode); };
    return (flags & O_CREAT) == 0 ? call() : record_entry(PowerEvent::kFile, full_path(folder, path), {}, call);
}

mode_t mode_in(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

EXPORTED int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    return record_open(AT_FDCWD, path, flags, mode);
}
EXPORTED int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    return record_open(folder, path, flags, mode);
}
EXPORTED ssize_t write(int fd, const void* data, size_t size) {
    const iovec part = part_of(data, size);
    return record_write(fd, &part, 1, -1, [&] { return REAL(write)(fd, data, size); });
}
EXPORTED ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    const iovec part = part_of(data, size);
    return record_write(fd, &part, 1, offset, [&] { return REAL(pwrite)(fd, data, size, offset); });
}
EXPORTED ssize_t writev(int fd, const iovec* parts, int count) {
    return record_write(fd, parts, count, -1, [&] { return REAL(writev)(fd, parts, count); });
}
EXPORTED int ftruncate(int fd, off_t size) noexcept {
    return record_call(fd, PowerEvent::kResize, size, [&] { return REAL(ftruncate)(fd, size); });
}
EXPORTED int posix_fallocate(int fd, off_t offset, off_t size) {
    return record_call(fd, PowerEvent::kResize, offset + size, [&] { return REAL(posix_fallocate)(fd, offset, size); });
}
EXPORTED int fsync(int fd) {
    return record_call(fd, PowerEvent::kSync, 0, [&] { return REAL(fsync)(fd); });
}
EXPORTED int fdatasync(int fd) {
    return record_call(fd, PowerEvent::kSync, 0, [&] { return REAL(fdatasync)(fd); });
}
EXPORTED int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    return record_entry(PowerEvent::kFolder, full_path(folder, path), {},
                        [&] { return REAL(mkdirat)(folder, path, mode); });
}
EXPORTED int mkdir(const char* path, mode_t mode) noexcept {
    return ::mkdirat(AT_FDCWD, path, mode);
}
EXPORTED int mkfifoat(int folder, const char* path, mode_t mode) noexcept {
    return record_entry(PowerEvent::kFifo, full_path(folder, path), {},
                        [&] { return REAL(mkfifoat)(folder, path, mode); });
}
EXPORTED int mkfifo(const char* path, mode_t mode) noexcept {
    return ::mkfifoat(AT_FDCWD, path, mode);
}
EXPORTED int linkat(int from, const char* path, int to, const char* other, int flags) noexcept {
    return record_entry(PowerEvent::kLink, full_path(from, path), full_path(to, other),
                        [&] { return REAL(linkat)(from, path, to, other, flags); });
}
EXPORTED int renameat(int from, const char* path, int to, const char* other) noexcept {
    return record_entry(PowerEvent::kRename, full_path(from, path), full_path(to, other),
                        [&] { return REAL(renameat)(from, path, to, other); });
}
EXPORTED int rename(const char* path, const char* other) noexcept {
    return ::renameat(AT_FDCWD, path, AT_FDCWD, other);
}
EXPORTED int unlinkat(int folder, const char* path, int flags) noexcept {
    return record_entry(PowerEvent::kUnlink, full_path(folder, path), {},
                        [&] { return REAL(unlinkat)(folder, path, flags); });
}
EXPORTED int unlink(const char* path) noexcept {
    return ::unlinkat(AT_FDCWD, path, 0);
}
