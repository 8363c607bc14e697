// SPDX-License-Identifier: MIT
// What a disk holds for certain of the files beside the platter, as platter.cpp keeps it there.
#pragma once

#include <filesystem>

#include "kavutil/unique_fd.h"

namespace kvr::test {

/// Environment: the folder of the platter; what lies in the folder above it is kept.
inline constexpr char kPlatter[] = "KVR_PLATTER";

/// Where the durable content of a file is kept, whatever its name.
std::filesystem::path durable_content(const std::filesystem::path& file);
/// Where the durable names of a folder's files are kept, each a link to the content.
std::filesystem::path durable_names(const std::filesystem::path& folder);

/// As long as it is held, by whatever process, nothing becomes durable.
UniqueFd hold_platter();

} // namespace kvr::test
