// SPDX-License-Identifier: MIT
// Who runs a channel: a record lock on a file of its own in the queue manager's folder. The lock dies with its process,
// however that ends, and is not inherited by its children; unlike a recorded process id it cannot lie.
//
// Record locks belong to a process, and closing any descriptor of the file gives them up: the process that holds a
// RunLock must not ask for its holder.
#pragma once

#include <filesystem>
#include <string>

#include <sys/types.h>

#include "kavutil/unique_fd.h"

namespace kvr {

class RunLock {
  public:
    /// Takes the lock for the object's life. Throws kvr::Error: kBusy with the other process's id when the channel is
    /// run already, kPermission when this user is not the owner of the queue manager or the locks' folder, kIo.
    RunLock(const std::filesystem::path& qmgr_dir, const std::string& channel);

    /// The process that holds the lock, 0 for none, kUnseenProcess (store/owner.h). Throws kvr::Error:
    /// kPermission when this user may not use one of the folders (store/access.h), kIo.
    static pid_t holder(const std::filesystem::path& qmgr_dir, const std::string& channel);

  private:
    UniqueFd fd_;
};

} // namespace kvr
