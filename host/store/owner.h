// SPDX-License-Identifier: MIT
// Who holds something of a queue manager: a queue, the turn to write, a channel.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "kavutil/export.h"

namespace kvr {

/// Stands for a process that is not visible here, because it runs in another PID namespace (another container).
constexpr pid_t kUnseenProcess = -1;

/// A process of some machine.
struct Owner {
    std::string machine;       ///< name of the machine; empty: this one
    pid_t process = 0;         ///< its id there, or kUnseenProcess
    std::uint64_t started = 0; ///< when it started, in its system's own count: no later process of that id has the
                               ///< same; 0: not known

    [[nodiscard]] bool operator==(const Owner&) const = default;
};

/// What the system tells of a process of this machine behind its name, which may hold anything: " S 1 ..." (proc(5),
/// stat). Empty when there is none.
KVR_EXPORT std::string process_facts(pid_t process);
/// The process of this machine that has that id now.
KVR_EXPORT Owner local_owner(pid_t process);

/// "process 7"; for kUnseenProcess what it is.
KVR_EXPORT std::string process_text(pid_t process);
/// The same with the machine, where it is another one.
KVR_EXPORT std::string owner_text(const Owner& owner);

} // namespace kvr
