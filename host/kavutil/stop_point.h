// SPDX-License-Identifier: MIT
// Where a worker may be stopped. The channel's run event never returns, so the host ends the process from inside its
// own operations, at points where the main flow can block and nothing is half done.
//
// The flag is raised by the worker's signal handler, again and again (a timer repeats the signal so that every blocking
// call is interrupted); the hook is the worker's too. In programs without a hook nothing here does anything.
#pragma once

#include "kavutil/export.h"

namespace kvr {

/// What the worker is doing at a stop point.
enum class StopPlace {
    kBetweenMessages, ///< in the queue get, the message before it committed
    kMidMessage,      ///< anywhere else: a message in hand was not sent whole and goes back to its queue
};

/// Ends the process (event 4, then status 0) when a stop was asked for while the run event runs. Returns at once
/// otherwise: nothing pending, start-up's and shutdown's own calls, other programs.
/// For the main flow only. An operation that is called in signal handlers too asks in_signal_handler() first.
/// Cheap enough for every call: one load of a flag when no stop is pending.
KVR_EXPORT void stop_point(StopPlace place);

/// True once a stop was asked for.
KVR_EXPORT bool stop_pending();

/// True once a stop has been pending for so long that a message that still makes progress is given up too.
KVR_EXPORT bool stop_overdue();

/// True when a signal is blocked that was not when the hook was set. That is so in every signal handler, and in the
/// main flow while it holds signals back itself: who gets true must neither stop nor wait any longer, but fail.
KVR_EXPORT bool in_signal_handler();

/// Asks for a stop. Safe in a signal handler; called for every repetition of the stop signal.
KVR_EXPORT void stop_request();

/// Called at the first stop point after a request; does not return.
using StopHook = void (*)(StopPlace place);

/// Sets the hook, or removes it with null; remembers the calling thread's signal mask as that of the main flow.
KVR_EXPORT void stop_set_hook(StopHook hook);

} // namespace kvr
