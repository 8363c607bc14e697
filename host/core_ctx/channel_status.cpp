// SPDX-License-Identifier: MIT
#include "core_ctx/channel_status.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core_ctx/run_lock.h"
#include "kavutil/unique_fd.h"
#include "store/lock_holder.h"

namespace kvr {
namespace {

using Clock = std::chrono::steady_clock;

/// How long a process may take to vanish after SIGKILL; more means that the system itself is stuck.
constexpr std::chrono::seconds kKillWait{10};

/// A process that cannot be mistaken for a later one with the same id. By system call: not every C library that has the
/// functions declares them for C++.
class ProcessHandle {
  public:
    explicit ProcessHandle(pid_t pid) : pid_(pid), fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}

    [[nodiscard]] bool is_open() const { return fd_.get() >= 0; }

    void send(int signal) const {
        if (syscall(SYS_pidfd_send_signal, fd_.get(), signal, nullptr, 0) == 0 || errno == ESRCH) {
            return;
        }
        throw Error(errno == EPERM ? Errc::kPermission : Errc::kIo,
                    "process " + std::to_string(pid_) + " cannot be signalled (" + std::strerror(errno) +
                        "): stop it as its owner");
    }

    [[nodiscard]] bool ends_within(std::chrono::milliseconds time) const {
        const auto deadline = Clock::now() + time;
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd entry{fd_.get(), POLLIN, 0};
            const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
            if (ready > 0) {
                return true;
            }
            if (ready == 0 || errno != EINTR) {
                return false;
            }
        }
    }

  private:
    pid_t pid_;
    UniqueFd fd_;
};

} // namespace

ChannelStatus recorded_status(Store& store, const std::string& channel) {
    ChannelStatus status;
    Attributes attributes;
    try {
        attributes = store.object_get("CHS", channel);
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound) {
            throw;
        }
        return status;
    }
    status.state = attributes["STATUS"];
    status.recorded_pid = static_cast<pid_t>(std::strtol(attributes["PID"].c_str(), nullptr, 10));
    status.local_ip = attributes["LOCALIP"];
    status.local_port = attributes["LOCALPORT"];
    status.remote_ip = attributes["REMOTEIP"];
    status.remote_port = attributes["REMOTEPORT"];
    for (const char* name : {"XMITQ", "HBINT", "SSLCAUTH", "CONNAME", "SHORTRTY", "SHORTTMR", "LONGRTY", "LONGTMR"}) {
        if (attributes.contains(name)) {
            status.taken[name] = attributes[name];
        }
    }
    status.failure = attributes["FAILURE"];
    status.log = attributes["LOG"];
    return status;
}

ChannelStatus channel_status(Store& store, const std::string& channel) {
    ChannelStatus status = recorded_status(store, channel);
    status.runner = RunLock::holder(store.dir(), channel);
    return status;
}

bool mark_stopped(Store& store, const std::string& channel, const std::string& failure) {
    const ChannelStatus status = recorded_status(store, channel);
    if (!status.is_stale()) {
        return false;
    }
    Attributes stopped{{"PID", "-1"}, {"STATUS", "STOPED"}};
    if (status.failure.empty()) {
        stopped.merge(Attributes{{"FAILURE", failure}, {"LOG", ""}});
    }
    store.object_set("CHS", channel, stopped);
    return true;
}

StopOutcome stop_channel(const std::filesystem::path& qmgr_dir, const std::string& channel,
                         std::chrono::milliseconds timeout) {
    const pid_t pid = RunLock::holder(qmgr_dir, channel);
    if (pid == kUnseenProcess) {
        throw Error(Errc::kBusy, "channel '" + channel + "' is run by " + process_text(pid) + ": stop it from there");
    }
    if (pid == 0) {
        return {StopResult::kNotRunning, 0};
    }
    const ProcessHandle process(pid);
    // The holder may have ended, and its id be another's, between the question and the handle.
    if (!process.is_open() || RunLock::holder(qmgr_dir, channel) != pid) {
        return {StopResult::kNotRunning, 0};
    }
    process.send(SIGTERM);
    if (process.ends_within(timeout)) {
        return {StopResult::kStopped, pid};
    }
    process.send(SIGKILL);
    if (!process.ends_within(kKillWait)) {
        throw Error(Errc::kBusy, "process " + std::to_string(pid) + " that runs channel '" + channel +
                                     "' does not end even after SIGKILL: the system holds it, look for a disk or "
                                     "network file system that does not answer");
    }
    return {StopResult::kKilled, pid};
}

bool repair_after_stop(Store& store, const std::string& channel, StopResult stopped) {
    std::optional<RunLock> lock; // nobody runs it as long as this is held
    try {
        lock.emplace(store.dir(), channel);
    } catch (const Error& error) {
        if (error.code() == Errc::kBusy) {
            return false; // started again: the record is the new process's
        }
        throw;
    }
    return mark_stopped(store, channel, stopped == StopResult::kKilled ? "" : "its process ended without a word");
}

} // namespace kvr
