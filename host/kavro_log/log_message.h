// SPDX-License-Identifier: MIT
// The message that the lines are about, for lines whose text does not name it.
#pragma once

#include "kavutil/export.h"

namespace kvr {

/// Levels up to this one name the message.
constexpr int kLogMessageLevel = 3;
constexpr int kMessageIdSize = 32;

/// From here on lines end with "msg[ID]"; null: no more. For the main flow only; a handler that interrupts it shows the
/// id whole or not at all. A forked child starts without.
/// @param id  kMessageIdSize bytes, padded with NULs; copied
KVR_EXPORT void log_set_message(const char* id);

/// The id, null for none.
const char* log_message();

} // namespace kvr
