// SPDX-License-Identifier: MIT
// A file of allocated blocks that is given up when the disk is full.
#include "reserve_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include "permissions.h"
#include "system_error.h"

namespace kvr {

namespace {

/// Room for some tens of group deletes, each of which rewrites a few pages of every table it touches.
constexpr off_t kReserve = 1L << 20;

} // namespace

void ReserveFile::require() const {
    struct stat info {};
    if (::stat(path_.c_str(), &info) == 0 && info.st_size >= kReserve) {
        return;
    }
    try {
        ::close(open_allocated_file(path_, kReserve));
    } catch (const FullError&) {
        release(); // a part of it helps nobody here: the others may need the room
        throw;
    }
}

void ReserveFile::release() const {
    ::unlink(path_.c_str());
}

} // namespace kvr
