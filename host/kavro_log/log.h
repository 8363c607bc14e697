// SPDX-License-Identifier: MIT
// The host's own side of the log: where lines go and which of them.
#pragma once

#include "export.h"
#include "log_secret.h"

namespace kvr {

constexpr int kLogDefaultLevel = 3;

/// Directs the log to a file, created with mode 0600 and appended to (a rotation that copies and truncates is fine).
/// Null or empty: standard error, which is also where lines go before this call.
/// @return 0, or -1 with `errno` set, and the log stays where it was
KVR_EXPORT int log_open(const char* file);

/// Drops lines above this level (0 drops all).
KVR_EXPORT void log_set_level(int level);

} // namespace kvr
