// SPDX-License-Identifier: MIT
// A worker process: attach to a queue manager, load the channel plug-in, run one channel, stop at a safe point.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "kavutil/export.h"

namespace kvr {

struct WorkerOptions {
    std::filesystem::path home;       ///< folder that holds the queue managers' folders
    std::string qmgr;                 ///< queue manager's name
    std::string channel;              ///< channel's name
    std::filesystem::path plugin;     ///< the plug-in's library
    std::filesystem::path log_file;   ///< empty: standard error
    int log_level = 3;                ///< lines above this level are dropped
    std::function<void()> on_claimed; ///< called once the channel is this process's to run; may be empty
};

/// Runs the channel on the calling thread and ends the process: status 0 after a stop (SIGTERM, SIGINT), 1 when the
/// channel could not start or failed. A stop counts from the first moment on: signals that the caller holds back are
/// let through once they can end the process in order. SIGHUP opens the log's file anew and interrupts nothing; the
/// caller holds it back. Throws kvr::Error for what is wrong before the plug-in is loaded (unknown queue manager or
/// channel, wrong type, channel already running, missing queue).
[[noreturn]] KVR_EXPORT void run_worker(const WorkerOptions& options, int argc, char** argv);

} // namespace kvr
