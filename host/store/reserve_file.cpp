// SPDX-License-Identifier: MIT
// A file of allocated blocks that is given up when the disk is full.
#include "reserve_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include "permissions.h"
#include "system_error.h"

namespace kvr {

bool ReserveFile::ensure() const {
    struct stat info {};
    if (::lstat(path_.c_str(), &info) == 0 && info.st_size >= static_cast<off_t>(kSize)) {
        return true;
    }
    try {
        ::close(open_allocated_file(path_, static_cast<off_t>(kSize)));
        return true;
    } catch (const FullError&) {
        release(); // a part of it helps nobody here: the others may need the room
        return false;
    }
}

void ReserveFile::release() const {
    ::unlink(path_.c_str());
}

} // namespace kvr
