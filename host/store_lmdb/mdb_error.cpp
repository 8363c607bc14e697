// SPDX-License-Identifier: MIT
#include "store_lmdb/mdb_error.h"

#include <cerrno>
#include <string>

#include <lmdb.h>
#include <sys/statvfs.h>

#include "store/system_error.h"

namespace kvr {

namespace {

/// A write that LMDB could not finish because the disk was full reaches us as EIO: the free space tells them apart.
bool disk_is_full(const std::filesystem::path& path) {
    constexpr unsigned long kNearlyNothing = 256UL << 10;
    struct statvfs info {};
    return ::statvfs(path.c_str(), &info) == 0 && info.f_bavail * info.f_frsize < kNearlyNothing;
}

} // namespace

void throw_mdb(const char* doing, const std::filesystem::path& path, int error) {
    const std::string text = std::string("cannot ") + doing + " in " + path.string() + ": " + mdb_strerror(error);
    switch (error) {
    case MDB_MAP_FULL:
        throw FullError(Shortage::kStore, text + "; raise the queue manager's map size or drain its queues");
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

void check_mdb(int result, const char* doing, const std::filesystem::path& path) {
    if (result != MDB_SUCCESS) {
        throw_mdb(doing, path, result);
    }
}

} // namespace kvr
