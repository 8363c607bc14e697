// SPDX-License-Identifier: MIT
// What a process says to the service manager that started it, and to the journal that reads its standard error. Started
// by anybody else, it says nothing.
#pragma once

#include "kavutil/export.h"

namespace kvr {

/// Sends lines such as "READY=1" or "STATUS=text" (joined by \n) to the socket that NOTIFY_SOCKET names. A manager that
/// takes nothing for a second misses them. For the main flow only; a forked child has nothing to say. Keeps `errno`.
KVR_EXPORT void tell_service_manager(const char* lines);

/// Whether it is the journal that reads this descriptor: it takes a mark before a line, "<3>" (error) to "<7>" (debug),
/// as the line's priority.
KVR_EXPORT bool journal_reads(int fd);
/// Such a mark where the journal reads the descriptor, else "".
KVR_EXPORT const char* journal_mark(int fd, const char* mark);

} // namespace kvr
