// SPDX-License-Identifier: MIT
// Where a worker may be stopped. The channel's run event never returns, so the host ends the process from inside its
// own operations, at points where the main flow can block and nothing is half done.
#pragma once

namespace kvr {

/// What the worker is doing at a stop point.
enum class StopPlace {
    kBetweenMessages, ///< in the queue get, the message before it committed
    kMidMessage,      ///< anywhere else: a message in hand goes back to its queue
};

/// Ends the process (event 4, then status 0) when a stop was asked for and the main flow of the run event called.
/// Returns at once otherwise: in a signal handler, during start-up's and shutdown's own calls, in other programs.
/// Cheap enough for every call: one load of a flag when no stop is pending.
void stop_point(StopPlace place);

/// True once a stop was asked for.
bool stop_pending();

} // namespace kvr
