// SPDX-License-Identifier: MIT
// Folders and files of a queue manager: private to their owner whatever the umask, refused when others can write or
// when they belong to somebody else. No link is followed below a queue manager's folder.
//
// Below a folder that a group shares (access.h), files are made for that group, too, whoever makes them: the folder
// gives them its group. They appear with their mode, because only who made them could mend it.
#pragma once

#include <filesystem>

#include <sys/types.h>

#include "kavutil/export.h"
#include "kavutil/unique_fd.h"

namespace kvr {

constexpr mode_t kPrivateFolder = 0700;
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kSharedGate = 02710;   ///< a queue manager's folder whose group may use it
constexpr mode_t kSharedFolder = 02770; ///< a folder in it that the group shares
constexpr mode_t kSharedFile = 0660;    ///< in one of these

/// Makes a folder with mode 0700, its entry in the folder above flushed. Throws kExists, kPermission, kIo.
KVR_EXPORT void make_private_folder(const std::filesystem::path& path);
/// Makes the folder when it is missing, checks it as check_private when it is there.
KVR_EXPORT void ensure_private_folder(const std::filesystem::path& path);
/// Sets mode 0600, or that of a shared file, unless it has it. Throws kPermission on a link, and when it belongs to
/// somebody else and has another mode.
KVR_EXPORT void make_private_file(const std::filesystem::path& path);
/// Makes a FIFO with that mode when it is missing.
KVR_EXPORT void make_private_fifo(const std::filesystem::path& path);
/// Whether files in the folder are a group's, too.
KVR_EXPORT bool is_shared_folder(const std::filesystem::path& folder);
/// Throws kPermission on a link. Opens nothing, so that no record lock is lost with its descriptor.
void set_mode(const std::filesystem::path& path, mode_t mode, const char* doing);
/// Throws kIo when the path is missing, kPermission when it belongs to another user, others can write to it, or
/// when it is no real folder or file (a link is neither). Opens no descriptor of it.
KVR_EXPORT void check_private(const std::filesystem::path& path, bool folder);
/// Flushes a folder's entries.
KVR_EXPORT void sync_folder(const std::filesystem::path& path);
/// Opens or creates a file of at least `size` bytes whose blocks are allocated: a mapping of it cannot meet a full
/// disk. Close-on-exec, mode as make_private_file. Throws kIo, kFull, kPermission (also for a link).
KVR_EXPORT UniqueFd open_allocated_file(const std::filesystem::path& path, off_t size);

} // namespace kvr
