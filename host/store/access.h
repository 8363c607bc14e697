// SPDX-License-Identifier: MIT
// Who may use a queue manager: the owner of its folder, and the members of a group where the owner has chosen one. The
// folder itself says which, by its group and mode, so that only its owner can choose: 0700 is nobody else, 2710 (its
// group may go through it, not look around in it) the members of its group. What they share below it has that group,
// 2770 and 0660 (permissions.h); nothing else lets them in.
#pragma once

#include <filesystem>
#include <optional>

#include <sys/types.h>

#include "kavutil/export.h"

namespace kvr {

struct Access {
    uid_t owner = 0;
    std::optional<gid_t> group; ///< nothing: the owner alone
    [[nodiscard]] KVR_EXPORT bool is_owner() const;
};

/// Who may use the queue manager in this folder. Throws kPermission when this process's user may not, or others can
/// write to the folder, kIo when it is missing.
KVR_EXPORT Access check_access(const std::filesystem::path& dir);
/// Throws kPermission when a thing in the folder belongs to somebody who may not use it, or others than these can write
/// to it, or it is no real folder or file; kIo when it is missing. Opens no descriptor of it.
KVR_EXPORT void check_part(const std::filesystem::path& path, bool folder, const Access& access);
/// Throws kPermission for all but the owner, who alone can do what `doing` says ("run its channels").
KVR_EXPORT void require_owner(const std::filesystem::path& dir, const char* doing);

/// For who may not even look at the path: throws kPermission with the folder that keeps him out and whom to ask.
[[noreturn]] void refuse_on_the_way(const std::filesystem::path& path);

/// For engines, as the owner, while no other process has the store open. Says that this group may use the folder, or
/// nobody else. Throws kPermission, also when the owner is not in the group.
KVR_EXPORT void choose_group(const std::filesystem::path& dir, std::optional<gid_t> group);
/// Lets the group put and change files in a folder in it, or nobody else. What members made there becomes the owner's
/// with its contents, FIFOs are removed; without `take_over` it is refused.
KVR_EXPORT void share_folder(const std::filesystem::path& folder, std::optional<gid_t> group, bool take_over);
/// Lets the group change a file. Nothing happens where there is none.
KVR_EXPORT void share_file(const std::filesystem::path& file, std::optional<gid_t> group);
/// Lets the group read a file, or look into a folder.
KVR_EXPORT void show_to_group(const std::filesystem::path& path, gid_t group);

/// The first folder above `path`, or it, that does not let members of the group through; empty for none.
KVR_EXPORT std::filesystem::path folder_in_the_way(const std::filesystem::path& path, gid_t group);

} // namespace kvr
