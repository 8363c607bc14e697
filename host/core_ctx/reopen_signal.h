// SPDX-License-Identifier: MIT
// SIGHUP: the log's file was moved away, a new one begins.
#pragma once

namespace kvr {

/// Begins to wait for SIGHUP on a thread of its own, so that no call of the channel is ever interrupted by it: not its
/// get, not a write, no pause. Every other thread keeps the signal blocked (process_setup.h). Throws kvr::Error(kIo).
void watch_reopen_signal();

} // namespace kvr
