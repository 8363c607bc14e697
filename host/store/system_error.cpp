// SPDX-License-Identifier: MIT
// Errors of the operating system and of LMDB as kvr::Error, with what to do about them.
#include "system_error.h"

#include <cerrno>
#include <string>
#include <system_error>

#include <lmdb.h>
#include <sys/statvfs.h>

namespace kvr {

namespace {

/// A write that LMDB could not finish because the disk was full reaches us as EIO: the free space tells them apart.
bool disk_is_full(const std::filesystem::path& path) {
    constexpr unsigned long kNearlyNothing = 256UL << 10;
    struct statvfs info {};
    return ::statvfs(path.c_str(), &info) == 0 && info.f_bavail * info.f_frsize < kNearlyNothing;
}

} // namespace

void throw_system(const char* doing, const std::filesystem::path& path, int error) {
    const std::string text =
        std::string("cannot ") + doing + " " + path.string() + ": " + std::generic_category().message(error);
    switch (error) {
    case EEXIST:
    case ENOTEMPTY:
        throw Error(Errc::kExists, text);
    case EACCES:
    case EPERM:
        throw Error(Errc::kPermission, text + "; check its owner and mode, and those of the folders above it");
    case ELOOP:
        throw Error(Errc::kPermission, text + "; put the thing itself there, links are not followed");
    case EROFS:
        throw Error(Errc::kPermission, text);
    case ENOSPC:
    case EDQUOT:
        throw FullError(Shortage::kDisk, text + "; free some space and try again, nothing that was accepted is lost");
    default:
        throw Error(Errc::kIo, text);
    }
}

void throw_mdb(const char* doing, const std::filesystem::path& path, int error) {
    const std::string text = std::string("cannot ") + doing + " in " + path.string() + ": " + mdb_strerror(error);
    switch (error) {
    case MDB_MAP_FULL:
        throw FullError(Shortage::kMap, text + "; raise the queue manager's map size or drain its queues");
    case MDB_TXN_FULL:
        throw Error(Errc::kTooLarge, text + "; use smaller groups");
    case MDB_READERS_FULL:
        throw Error(Errc::kIo, text + "; too many processes use the queue manager");
    case MDB_VERSION_MISMATCH:
        throw Error(Errc::kVersion, text + "; use the version that wrote it");
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INVALID:
    case MDB_NOTFOUND:
        throw Error(Errc::kDamaged, text + "; restore the store from a copy");
    case EIO:
        if (disk_is_full(path)) {
            throw_system(doing, path, ENOSPC);
        }
        throw_system(doing, path, error);
    default:
        if (error > 0) {
            throw_system(doing, path, error);
        }
        throw Error(Errc::kIo, text);
    }
}

} // namespace kvr
