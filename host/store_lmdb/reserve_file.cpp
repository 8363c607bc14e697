// SPDX-License-Identifier: MIT
#include "store_lmdb/reserve_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include "kavutil/unique_fd.h"
#include "store/permissions.h"
#include "store/system_error.h"

namespace kvr {

bool ReserveFile::ensure() const {
    struct stat info {};
    if (::lstat(path_.c_str(), &info) == 0 && info.st_size >= static_cast<off_t>(kSize)) {
        return true;
    }
    try {
        const UniqueFd made = open_allocated_file(path_, static_cast<off_t>(kSize));
        return true;
    } catch (const FullError&) {
        release(); // a part of it helps nobody here: the others may need the room
        return false;
    }
}

void ReserveFile::release() const {
    if (!is_shared_folder(path_.parent_path()) || ::truncate(path_.c_str(), 0) != 0) { // members cannot remove it
        ::unlink(path_.c_str());
    }
}

} // namespace kvr
