// SPDX-License-Identifier: MIT
// The settings of this engine: "quota" and "map_size" in bytes, "sync" on or off. "group" stands in the modes of the
// folder, not in the store.
#pragma once

#include <cstdint>

#include "store/store.h"

namespace kvr {

constexpr const char* kGroupSetting = "group";

struct LmdbSettings {
    std::uint64_t quota = 7ULL << 30;    ///< bytes of messages and objects beyond which puts fail (deletes go on)
    std::uint64_t map_size = 8ULL << 30; ///< address space of the environment; above the quota
    /// False: faster, but a power loss can take the last seconds with it, and the whole store on a file system that
    /// reorders writes. Takes effect when a process opens the store.
    bool sync = true;
};

/// The settings with these changes. A quota that comes without a map size gets one that leaves room above it for
/// deletes. Throws kUnknownAttr, and kInvalid also when the map leaves too little room above the quota.
LmdbSettings changed_settings(LmdbSettings settings, const Settings& changes);
Settings settings_as_texts(const LmdbSettings& settings);

} // namespace kvr
