// SPDX-License-Identifier: MIT
// Root at work on another user's queue manager: as that user, for good.
//
// Whoever owns a queue manager can put a link, a FIFO or another file in the place of any of its files at any moment.
// What root did there with root's rights, that user could aim at the whole machine. And what root makes there would
// lock its owner out. Both end when the process has no other rights than the owner's.
#pragma once

#include <filesystem>
#include <string>

namespace kvr {

/// When this process is root and `path` belongs to somebody else: takes on that user's id and groups and cannot get
/// root's back. Of a link that is root's own, the owner of what it leads to counts. Called before anything in `path` is
/// opened. Throws kvr::Error(kPermission) when the system refuses or that user cannot reach the path.
void become_owner_of(const std::filesystem::path& path);

/// For the end of an error's text: as whom this process works since become_owner_of; empty when nothing changed.
std::string owner_note();

} // namespace kvr
