// SPDX-License-Identifier: MIT
// From SIGTERM or SIGINT to a stop request that cannot be missed.
#pragma once

namespace kvr {

/// Installs the handlers. The first signal raises the stop flag and starts a timer that repeats the signal every 50 ms,
/// so that a call that was about to block when the flag rose is interrupted all the same, and the next one too. Further
/// signals change nothing. SIGINT stays ignored where it was. Throws kvr::Error(kIo).
void watch_stop_signals();

/// Ends the repetition and ignores the signals from now on: for the shutdown.
void ignore_stop_signals();

} // namespace kvr
