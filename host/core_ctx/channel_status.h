// SPDX-License-Identifier: MIT
// The truth about a channel, for operator tools: what its status object says beside who really runs it; and its stop.
// For processes that run no channel themselves (run_lock.h).
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include <sys/types.h>

#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

struct ChannelStatus {
    std::string state;       ///< STATUS as recorded; empty: the channel never ran
    pid_t recorded_pid = 0;  ///< PID as recorded; below 1: none
    pid_t runner = 0;        ///< the process that runs the channel now, 0 for none, kUnseenProcess (store/owner.h)
    std::string local_ip;    ///< ends of the current or the last connection
    std::string local_port;  //
    std::string remote_ip;   //
    std::string remote_port; //
    /// What the process recorded_pid goes by, whatever the definition says by now: XMITQ, HBINT and SSLCAUTH as it
    /// read them at its start; CONNAME, SHORTRTY, SHORTTMR, LONGRTY and LONGTMR as it read them when it began to
    /// connect. Those that it never read are missing.
    Attributes taken;
    std::string failure; ///< when and why the last process failed; empty: it did not, or nobody knows
    std::string log;     ///< where it says more; empty: on its standard error

    /// The record names a state of a running channel, but nobody runs it: its process ended without a word.
    [[nodiscard]] bool is_stale() const { return runner == 0 && !state.empty() && state != "STOPED"; }
    /// The record is that of the process that runs the channel now.
    [[nodiscard]] bool is_current() const { return runner > 0 && runner == recorded_pid; }
};

/// Reads the status of a channel (name in upper case). Throws kvr::Error from the store.
KVR_EXPORT ChannelStatus channel_status(Store& store, const std::string& channel);

enum class StopResult {
    kNotRunning, ///< nobody runs it
    kStopped,    ///< it ended by itself after SIGTERM
    kKilled,     ///< it did not end in time; SIGKILL ended it. Its message in hand, if any, is sent again at the next
                 ///< start
};

struct StopOutcome {
    StopResult result;
    pid_t pid; ///< the process that ran the channel, 0 for none
};

/// Stops a channel (name in upper case) and waits for its end: SIGTERM, after `timeout` SIGKILL. Needs the queue
/// manager's folder only: whoever holds its store up does not hold up a stop. Throws kvr::Error: kPermission when the
/// process or the folder belongs to somebody else, kBusy when not even SIGKILL ends it or it is not visible here, kIo.
KVR_EXPORT StopOutcome stop_channel(const std::filesystem::path& qmgr_dir, const std::string& channel,
                                    std::chrono::milliseconds timeout);

/// Puts the record right after a stop, when it still names a running state though nobody runs the channel; returns
/// whether it did. Throws kvr::Error from the store.
KVR_EXPORT bool repair_after_stop(Store& store, const std::string& channel, StopResult stopped);

/// The record alone, `runner` left 0. For the process that holds the run lock too.
ChannelStatus recorded_status(Store& store, const std::string& channel);

/// Writes "STOPED" and PID -1 when the record says otherwise, with `failure` where it names none; returns whether it
/// did. The caller holds the run lock.
bool mark_stopped(Store& store, const std::string& channel, const std::string& failure);

} // namespace kvr
