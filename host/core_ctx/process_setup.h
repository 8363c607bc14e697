// SPDX-License-Identifier: MIT
// What a worker process must not take over from whoever started it.
#pragma once

namespace kvr {

/// Opens descriptors 0 to 2 where they are closed, so that no socket or file gets one of their numbers; lets every
/// signal through but SIGHUP, which is for the log (log_rotate_on), and drops inherited "ignore"
/// dispositions (SIGINT of a background job stays); ignores SIGPIPE and the signals that only the plug-in's handlers
/// make sense of; private file modes, no core dumps (a pass phrase is in memory).
void set_up_process();

} // namespace kvr
