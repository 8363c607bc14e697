// SPDX-License-Identifier: MIT
// Users and groups of the machine, as errors name them and as operators give them.
#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include "kavutil/export.h"

namespace kvr {

/// "user alice", or "user id 1000" where the system knows no name.
KVR_EXPORT std::string user_text(uid_t user);
/// Name of the group, its number where the system knows none, "none" for nothing: what group_named takes.
KVR_EXPORT std::string group_text(std::optional<gid_t> group);
/// Takes a group's name or number, or "none". Throws kInvalid.
KVR_EXPORT std::optional<gid_t> group_named(const std::string& text);
/// Whether this process has the group's rights.
bool has_group(gid_t group);

} // namespace kvr
