// SPDX-License-Identifier: MIT
// What an engine needs of the process it works for while it waits: the functions and the limit that store.h lets the
// process set, and whether a stop was asked for.
#pragma once

#include <chrono>
#include <string>

#include "kavutil/export.h"

namespace kvr {

constexpr std::chrono::milliseconds kNoLimit = std::chrono::years(10);

/// Tells a line by the function that set_notice set.
KVR_EXPORT void tell(const std::string& line);
/// Calls the function that set_idle_look set.
KVR_EXPORT void look_while_idle();
/// Whether to give up waiting for somebody else, after `waited`: when this or the process's limit is reached, or a stop
/// was asked for and the waits since took what a stop allows them.
KVR_EXPORT bool wait_is_over(std::chrono::steady_clock::duration waited, std::chrono::milliseconds limit = kNoLimit);

} // namespace kvr
