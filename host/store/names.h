// SPDX-License-Identifier: MIT
// Names of queue managers, queues and objects: what may stand in one.
#pragma once

#include <cstddef>
#include <string_view>

#include "kavutil/error.h"
#include "kavutil/export.h"

namespace kvr {

/// Greatest name of a queue manager: it names a folder and travels in fields of 32 bytes.
constexpr std::size_t kMaxQmgrName = 32;

/// Refuses a name that is empty, longer than `max` bytes or holds anything but letters, digits and . _ - % (not '.' or
/// '-' at its head). So a name is safe in a path, in a log line and on a command line. `what` says in the error whose
/// name it is, such as "queue". Throws kInvalid.
KVR_EXPORT void check_name(std::string_view what, std::string_view name, std::size_t max);

} // namespace kvr
