// SPDX-License-Identifier: MIT
// Who holds a record lock.
#include "lock_holder.h"

namespace kvr {

pid_t lock_holder(int fd, struct flock wanted) {
    const bool answered = ::fcntl(fd, F_GETLK, &wanted) == 0;
    if (answered && wanted.l_type == F_UNLCK) {
        return 0;
    }
    return answered && wanted.l_pid > 0 ? wanted.l_pid : kUnseenProcess;
}

std::string process_text(pid_t process) {
    return process > 0 ? "process " + std::to_string(process)
                       : "a process that is not visible here (it runs in another PID namespace)";
}

} // namespace kvr
