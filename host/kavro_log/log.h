// SPDX-License-Identifier: MIT
// The host's own side of the log: where lines go and which of them.
#pragma once

#include "kavro_log/log_secret.h"
#include "kavutil/export.h"

namespace kvr {

constexpr int kLogDefaultLevel = 3;

/// Directs the log to a file, created with mode 0600 and appended to (a rotation that copies and truncates is fine).
/// A link in the file's place is not followed, a FIFO needs its reader. Null or empty: standard error, which is also
/// where lines go before this call.
/// @return 0, or -1 with `errno` set (ELOOP: a link), and the log stays where it was
KVR_EXPORT int log_open(const char* file);

/// From now on the signal says that a rotation moved the log's file away. It is held in the calling thread, so that it
/// interrupts nothing; the next line, or log_look, sees it.
/// @return 0, or -1 with `errno` set
KVR_EXPORT int log_rotate_on(int signal);

/// Where the signal of a rotation came: opens the log's name anew, so that later lines go to a new file, and says so
/// there. Every line that is written looks first; who writes none for long calls this. Safe in a handler.
KVR_EXPORT void log_look();

/// Other code's lines on standard error, such as those of the TLS helpers, get the time and block nobody from now on:
/// descriptor 2 becomes a pipe of a few lines (a line that does not fit is lost), and what is in it goes to the real
/// standard error before the next line of the log, at an abort and at exit. A log on standard error goes to the real
/// one. Nothing changes under a sanitizer, whose report must not get lost.
/// @return 0, or -1 with `errno` set, and nothing changed
KVR_EXPORT int log_divert_stderr();

/// Passes on what is left and makes descriptor 2 the real standard error again. Harmless when nothing is diverted.
KVR_EXPORT void log_restore_stderr();

/// From now on lines on standard error begin with the mark of their level, "<3>" to "<7>", for a journal that reads
/// them (kavutil/service.h).
KVR_EXPORT void log_mark_priorities();

/// Drops lines above this level (0 drops all).
KVR_EXPORT void log_set_level(int level);

} // namespace kvr
