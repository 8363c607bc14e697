// SPDX-License-Identifier: MIT
// Tells the process which queue manager it belongs to.
#pragma once

#include <filesystem>
#include <string>

#include "kavutil/export.h"

namespace kvr {

/// Called once, before the channel attaches. The queue manager's folder is home / name.
KVR_EXPORT void ac_set_qmgr(const std::filesystem::path& home, const std::string& name);

} // namespace kvr
