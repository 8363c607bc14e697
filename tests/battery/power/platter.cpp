// SPDX-License-Identifier: MIT
// Preloaded into the programs of the power test, linked into the test itself: keeps in the folder KVR_PLATTER what a
// disk holds for certain of what lies below KVR_PLATTER_OF. Each file is there as it was at its last sync, under its
// key; each folder as its entries were at the folder's, a line "KEY NAME" each: no sync of a file makes an entry
// durable.
#include "platter.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#define KVR_REPLACES extern "C" __attribute__((visibility("default")))
#define KVR_REAL(name) (reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)))

namespace fs = std::filesystem;

namespace kvr::test {

std::string platter_key(int fd, const char* path) {
    struct statx info {};
    if (::statx(fd, path, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_INO, &info) != 0) {
        return "none";
    }
    return std::to_string(info.stx_ino) + "." + std::to_string(info.stx_btime.tv_sec) + "." +
           std::to_string(info.stx_btime.tv_nsec);
}

PlatterLock::PlatterLock(const std::string& platter)
    : fd_(::open((platter + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

PlatterLock::~PlatterLock() {
    ::close(fd_);
}

namespace {

const char* setting(const char* name) {
    return std::getenv(name); // NOLINT(concurrency-mt-unsafe): set before there is a second thread
}

std::string own_name(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

bool is_kept(int fd) {
    const char* folder = setting(kPlatterOf);
    std::error_code failed;
    return folder != nullptr && fs::read_symlink(own_name(fd), failed).native().starts_with(folder);
}

std::string kept_name(int fd) {
    return setting(kPlatter) + ("/" + platter_key(fd, ""));
}

void keep(int fd) {
    if (fs::is_directory(own_name(fd))) {
        std::ofstream entries(kept_name(fd));
        for (const auto& entry : fs::directory_iterator(own_name(fd))) {
            const std::string name = entry.path().filename();
            entries << platter_key(fd, name.c_str()) << ' ' << name << '\n';
        }
        return;
    }
    const int in = ::open(own_name(fd).c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(kept_name(fd).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    while (::sendfile(out, in, nullptr, 1U << 20U) > 0) {
    }
    ::close(in);
    ::close(out);
}

/// Makes the call, and what it made durable is kept; errno stays that of the call.
template <class Call, class Keep>
auto make_durable(int fd, Call call, Keep keep_it) {
    if (!is_kept(fd)) {
        return call();
    }
    const PlatterLock lock(setting(kPlatter));
    const auto result = call();
    const int saved = errno;
    if (result >= 0) {
        keep_it();
    }
    errno = saved;
    return result;
}

} // namespace
} // namespace kvr::test

KVR_REPLACES int fsync(int fd) {
    return kvr::test::make_durable(
        fd, [&] { return KVR_REAL(fsync)(fd); }, [&] { kvr::test::keep(fd); });
}

KVR_REPLACES int fdatasync(int fd) {
    return kvr::test::make_durable(
        fd, [&] { return KVR_REAL(fdatasync)(fd); }, [&] { kvr::test::keep(fd); });
}

/// To a descriptor with O_DSYNC, as a store's head pages are written: durable are these bytes and nothing else.
KVR_REPLACES ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    const auto call = [&] { return KVR_REAL(pwrite)(fd, data, size, at); };
    if ((::fcntl(fd, F_GETFL) & O_DSYNC) == 0) {
        return call();
    }
    return kvr::test::make_durable(fd, call, [&] {
        const int out = ::open(kvr::test::kept_name(fd).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        [[maybe_unused]] const ssize_t wrote = KVR_REAL(pwrite)(out, data, size, at);
        ::close(out);
    });
}
