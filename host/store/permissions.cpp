// SPDX-License-Identifier: MIT
// Folders and files of a queue manager: private to their owner whatever the umask, refused when others can write.
#include "store/permissions.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/system_error.h"

namespace kvr {

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kOthersWrite = 0022;

/// By a descriptor of its own that opens nothing (so that no record lock is lost with it), never through a link.
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

} // namespace

void make_private_folder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), kFolderMode) != 0) {
        throw_system("make the folder", path, errno);
    }
    set_mode(path, kFolderMode, "protect the folder");
    sync_folder(path.parent_path());
}

void ensure_private_folder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), kFolderMode) != 0) {
        if (errno != EEXIST) {
            throw_system("make the folder", path, errno);
        }
        check_private(path, true);
    }
}

void make_private_file(const std::filesystem::path& path) {
    set_mode(path, kFileMode, "protect");
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
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
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
    if (failed == 0 && (info.st_mode & 07777) != kFileMode && ::fchmod(fd.get(), kFileMode) != 0) {
        failed = errno;
    }
    if (failed != 0) {
        throw_system("make", path, failed);
    }
    return fd;
}

} // namespace kvr
