// SPDX-License-Identifier: MIT
// Who holds a record lock. The kind of lock that is found says whether somebody does, its process id does not: a
// process in another PID namespace has none here.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include "kavutil/export.h"
#include "store/owner.h"

namespace kvr {

/// The process whose lock is in the way of `wanted`: its id, 0 for none, kUnseenProcess also when the system gives no
/// answer. This process's own locks are in nobody's way here.
KVR_EXPORT pid_t lock_holder(int fd, struct flock wanted);

} // namespace kvr
