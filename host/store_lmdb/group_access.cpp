// SPDX-License-Identifier: MIT
#include "store_lmdb/group_access.h"

#include <filesystem>

#include "store/access.h"
#include "store/permissions.h"
#include "store/system_error.h"

namespace kvr {

namespace {

void share_all(const StoreFiles& files, std::optional<gid_t> group) {
    if (group) {
        choose_group(files.dir, group);
    }
    share_folder(files.store(), group, false);
    share_folder(files.queues(), group, true);
    for (const std::filesystem::path& file : {files.reserve(), files.drain_locks()}) {
        if (group && !std::filesystem::exists(file)) { // members cannot make it; one that is there may be locked
            open_allocated_file(file, 0).reset();
        }
        share_file(file, group);
    }
    if (!group) {
        choose_group(files.dir, group);
    }
}

} // namespace

void share_store(const StoreFiles& files, std::optional<gid_t> group) {
    try {
        share_all(files, group);
    } catch (const std::filesystem::filesystem_error& error) {
        throw_system("share", error.path1(), error.code().value());
    }
}

} // namespace kvr
