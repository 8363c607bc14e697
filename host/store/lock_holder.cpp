// SPDX-License-Identifier: MIT
#include "store/lock_holder.h"

namespace kvr {

pid_t lock_holder(int fd, struct flock wanted) {
    const bool answered = ::fcntl(fd, F_GETLK, &wanted) == 0;
    if (answered && wanted.l_type == F_UNLCK) {
        return 0;
    }
    return answered && wanted.l_pid > 0 ? wanted.l_pid : kUnseenProcess;
}

} // namespace kvr
