// SPDX-License-Identifier: MIT
// What the worker does with the queues that the channel opened, and tells of the channel's line.
#pragma once

#include <chrono>
#include <string>

#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

/// Gives every message in hand back to its queue: the next drainer gets it first. Called when the process is stopped in
/// the middle of a message, before the queues are closed. Never throws.
KVR_EXPORT void queue_give_back();

/// How the channel's definition wants its line treated.
struct LineSettings {
    std::string channel;
    DrainOptions drain; ///< of the transmission queue
    std::chrono::seconds trial =
        {}; ///< that a line has to last, at most, before it is fed after losses; 0: fed at once
};

/// For the channel that starts. Without it queues are drained as ever, and a line is fed at once.
KVR_EXPORT void line_settings(const LineSettings& settings);

/// What the channel writes into its status object: the words tell the state of its line. The caller tells of RETRYING,
/// BINDING and STOPED before they are written, of RUNING afterwards. Never throws; with RUNING it can wait.
KVR_EXPORT void line_status(const Attributes& status);

} // namespace kvr
