// SPDX-License-Identifier: MIT
// Lines that other code writes to standard error: the TLS helpers, the C library before an abort. They know no time
// and no guard against a reader that does not read; here they get both.
#pragma once

#include <cstddef>

namespace kvr {

bool is_regular(int fd);

/// Writes a line, unless its reader stalls: a full pipe is waited for once, for a moment, and until that reader catches
/// up lines are dropped at once. Safe in signal handlers.
/// @param stalled (in/out) of this descriptor, 0 at first
void write_guarded(int fd, bool regular, volatile int& stalled, const char* line, std::size_t length);

/// Descriptor of the real standard error.
int real_stderr();

/// As log_divert_stderr and log_restore_stderr, without a thought for the log.
int divert_stderr();
void restore_stderr();

/// From now on these lines begin with the journal's mark of a warning: nobody knows what they are.
void mark_stray_lines();

/// Copies what has come since to the real standard error, with the time. Safe in signal handlers, from any thread;
/// keeps nothing for later.
void pass_on_stray_lines();

} // namespace kvr
