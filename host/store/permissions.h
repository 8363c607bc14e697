// SPDX-License-Identifier: MIT
// Folders and files of a queue manager: private to their owner whatever the umask, refused when others can write.
#pragma once

#include <filesystem>

#include <sys/types.h>

namespace kvr {

/// Makes a folder with mode 0700. Throws kExists or kIo.
void make_private_folder(const std::filesystem::path& path);
/// Sets mode 0600 and the owner of the folder that holds it: root may work on another's store and leaves nothing there
/// that its owner could not use.
void make_private_file(const std::filesystem::path& path);
/// Throws kIo when the path is missing, kPermission when it belongs to another user (root may work on anybody's)
/// or others can write to it, or when it is no real folder or file (a link is neither).
void check_private(const std::filesystem::path& path, bool folder);
/// Flushes a folder's entries.
void sync_folder(const std::filesystem::path& path);
/// Opens or creates a file of at least `size` bytes whose blocks are allocated: a mapping of it cannot meet a full
/// disk. Close-on-exec, mode 0600. Throws kIo, kFull.
int open_allocated_file(const std::filesystem::path& path, off_t size);

} // namespace kvr
