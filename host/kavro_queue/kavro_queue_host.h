// SPDX-License-Identifier: MIT
// What the worker does with the queues that the channel opened.
#pragma once

#include "kavutil/export.h"

namespace kvr {

/// Gives every message in hand back to its queue: the next drainer gets it first. Called when the process is stopped in
/// the middle of a message, before the queues are closed. Never throws.
KVR_EXPORT void queue_give_back();

} // namespace kvr
