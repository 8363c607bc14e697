// SPDX-License-Identifier: MIT
// Folders and files of a queue manager: private to their owner whatever the umask, refused when others can write.
#include "store/permissions.h"

#include <cerrno>
#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/system_error.h"

namespace kvr {

namespace {

constexpr mode_t kOthersWrite = 0022;
constexpr mode_t kModeBits = 07777;

mode_t file_mode(const std::filesystem::path& path) {
    return is_shared_folder(path.parent_path()) ? kSharedFile : kPrivateFile;
}

/// Made under a name of its own, which nobody else opens, and given its mode before it gets `path`. Whoever is faster
/// has made it.
void make_shared(const std::filesystem::path& path, mode_t type) {
    std::uint64_t random = 0;
    ssize_t made = ::getrandom(&random, sizeof random, 0);
    const std::string aside = path.native() + "." + std::to_string(random);
    made = made != sizeof random ? -1 : ::mknod(aside.c_str(), type | kPrivateFile, 0);
    if (made == 0) {
        made = ::fchmodat(AT_FDCWD, aside.c_str(), kSharedFile, 0);
        made = made == 0 ? ::link(aside.c_str(), path.c_str()) : made;
    }
    const int failed = made == 0 || errno == EEXIST ? 0 : errno;
    ::unlink(aside.c_str());
    if (failed != 0) {
        throw_system("make", path, failed);
    }
}

UniqueFd open_file(const std::filesystem::path& path, mode_t mode) {
    constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW;
    if (mode == kPrivateFile) {
        return UniqueFd(::open(path.c_str(), kFlags | O_CREAT, mode));
    }
    UniqueFd fd(::open(path.c_str(), kFlags));
    while (!fd && errno == ENOENT) { // again where somebody removes it just then
        make_shared(path, S_IFREG);
        fd.reset(::open(path.c_str(), kFlags));
    }
    return fd;
}

} // namespace

void set_mode(const std::filesystem::path& path, mode_t mode, const char* doing) {
    if (::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) != 0) {
        const int cause = errno;
        std::error_code unknown;
        if (cause != EOPNOTSUPP) {
            throw_system(doing, path, cause);
        }
        // The C library goes by way of /proc, and has one error for a link and for a /proc that is not there.
        if (std::filesystem::is_symlink(path, unknown)) {
            throw_system(doing, path, ELOOP);
        }
        throw Error(Errc::kIo, std::string("cannot ") + doing + " " + path.string() +
                                   ": mount /proc, and use a disk that keeps modes");
    }
}

bool is_shared_folder(const std::filesystem::path& folder) {
    struct stat info {};
    return ::lstat(folder.c_str(), &info) == 0 &&
           ((info.st_mode & kModeBits) == kSharedGate || (info.st_mode & kModeBits) == kSharedFolder);
}

void make_private_folder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), kPrivateFolder) != 0) {
        throw_system("make the folder", path, errno);
    }
    set_mode(path, kPrivateFolder, "protect the folder");
    sync_folder(path.parent_path());
}

void ensure_private_folder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), kPrivateFolder) != 0) {
        if (errno != EEXIST) {
            throw_system("make the folder", path, errno);
        }
        check_private(path, true);
    }
}

void make_private_file(const std::filesystem::path& path) {
    struct stat info {};
    const mode_t mode = file_mode(path);
    if (::lstat(path.c_str(), &info) != 0 || (info.st_mode & kModeBits) != mode) {
        set_mode(path, mode, "protect");
    }
}

void make_private_fifo(const std::filesystem::path& path) {
    struct stat info {};
    if (file_mode(path) == kPrivateFile) {
        if (::mkfifo(path.c_str(), kPrivateFile) != 0 && errno != EEXIST) {
            throw_system("make", path, errno);
        }
    } else if (::lstat(path.c_str(), &info) != 0) {
        make_shared(path, S_IFIFO);
    }
    make_private_file(path);
}

void check_private(const std::filesystem::path& path, bool folder) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        throw_system("find", path, errno);
    }
    if (folder ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
        throw Error(Errc::kPermission, path.string() + " is not a plain " + (folder ? "folder" : "file"));
    }
    if (info.st_uid != ::geteuid()) {
        throw Error(Errc::kPermission, path.string() + " belongs to user id " + std::to_string(info.st_uid) +
                                           ", not to user id " + std::to_string(::geteuid()) +
                                           ": run as that user, or give it to this one with chown");
    }
    if ((info.st_mode & kOthersWrite) != 0) {
        throw Error(Errc::kPermission,
                    "others can write to " + path.string() + ": check what they did, then run chmod go-w on it");
    }
}

void sync_folder(const std::filesystem::path& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        throw_system("open the folder", path, errno);
    }
    if (::fsync(fd.get()) != 0) {
        throw_system("flush the folder", path, errno);
    }
}

UniqueFd open_allocated_file(const std::filesystem::path& path, off_t size) {
    const mode_t mode = file_mode(path);
    UniqueFd fd = open_file(path, mode);
    if (!fd) {
        throw_system("open", path, errno);
    }
    struct stat info {};
    int failed = ::fstat(fd.get(), &info) == 0 ? 0 : errno;
    if (failed == 0 && !S_ISREG(info.st_mode)) {
        failed = EINVAL;
    }
    constexpr off_t kBlock = 512;
    if (failed == 0 && (info.st_size < size || info.st_blocks * kBlock < size)) {
        // Never through ftruncate: a hole would be filled at the first store into the mapping, and a full disk then is
        // a SIGBUS. Two processes may do this at once, and it keeps what the file holds.
        failed = ::posix_fallocate(fd.get(), 0, size);
    }
    if (failed == 0 && (info.st_mode & kModeBits) != mode && ::fchmod(fd.get(), mode) != 0) {
        failed = errno;
    }
    if (failed != 0) {
        throw_system("make", path, failed);
    }
    return fd;
}

} // namespace kvr
