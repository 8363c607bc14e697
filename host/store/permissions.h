// SPDX-License-Identifier: MIT
// Folders and files of a queue manager: private to their owner whatever the umask, refused when others can write or
// when they belong to somebody else. No link is followed below a queue manager's folder.
#pragma once

#include <filesystem>

#include <sys/types.h>

#include "kavutil/export.h"
#include "kavutil/unique_fd.h"

namespace kvr {

/// Makes a folder with mode 0700, its entry in the folder above flushed. Throws kExists, kPermission, kIo.
KVR_EXPORT void make_private_folder(const std::filesystem::path& path);
/// Makes the folder when it is missing, checks it as check_private when it is there.
KVR_EXPORT void ensure_private_folder(const std::filesystem::path& path);
/// Sets mode 0600. Throws kPermission on a link.
KVR_EXPORT void make_private_file(const std::filesystem::path& path);
/// Throws kIo when the path is missing, kPermission when it belongs to another user, others can write to it, or
/// when it is no real folder or file (a link is neither). Opens no descriptor of it.
KVR_EXPORT void check_private(const std::filesystem::path& path, bool folder);
/// Flushes a folder's entries.
KVR_EXPORT void sync_folder(const std::filesystem::path& path);
/// Opens or creates a file of at least `size` bytes whose blocks are allocated: a mapping of it cannot meet a full
/// disk. Close-on-exec, mode 0600. Throws kIo, kFull, kPermission (also for a link).
KVR_EXPORT UniqueFd open_allocated_file(const std::filesystem::path& path, off_t size);

} // namespace kvr
