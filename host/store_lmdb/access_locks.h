// SPDX-License-Identifier: MIT
// The locks in front of those of LMDB. Nobody waits inside LMDB: who waits there for a process that dies while it sets
// the shared region up takes a half-filled one for good and commits over the newest state, and who waits there for a
// process that is frozen can neither say so nor give up.
//
// All end with their holder's process, and waiting for either has the limits and the words of store.h.
#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>

#include <sys/types.h>

#include "kavutil/unique_fd.h"
#include "store/waits.h"

namespace kvr {

/// Held while a process opens or closes the environment, takes a place among LMDB's readers (which it then keeps), and
/// clears places of readers that died: there, too, LMDB waits for a process that is frozen. Taken after the map's lock.
/// One way leads past it: a writer that follows one that died in its turn clears such places inside LMDB. A lock of the
/// open file, not of the process: when the holder dies the system drops it after the record locks of LMDB, so that its
/// next holder finds those free.
class OpeningLock {
  public:
    explicit OpeningLock(const std::filesystem::path& folder, std::chrono::milliseconds limit = kNoLimit);

  private:
    UniqueFd fd_;
};

/// A process's part in a store: that it has the store open, and the turn to write, which lock() and unlock() take and
/// give back. The file stays open: closing any descriptor of it would release the process's locks.
class StoreLock {
  public:
    /// The process has the store open from here on; waits for one that is about to delete it. Throws kBusy, kIo, and
    /// kNotFound when it was deleted meanwhile.
    explicit StoreLock(std::filesystem::path folder);

    void lock(); ///< throws kBusy, kIo
    void unlock();
    /// A process that is stopped while it has the turn, 0 for none.
    [[nodiscard]] pid_t frozen_writer() const;
    /// From here on no other process has the store open, nor gets it. Waits a moment for short commands. Throws kBusy
    /// with a process that has it open, kIo.
    void take_alone();
    /// Others may have the store open again. Throws as the constructor.
    void share();

  private:
    bool try_lock_bytes(bool may_be_next, bool& is_next);

    std::filesystem::path folder_;
    UniqueFd fd_;
    std::mutex threads_; ///< the system's lock does not exclude the threads of one process
};

/// A lock of the process on one byte of a file that stays open, for one thread at a time. To be taken with
/// std::unique_lock.
class ByteLock {
  public:
    /// @param doing  what its holder does to `path`, for who waits
    ByteLock(int fd, off_t byte, std::filesystem::path path, const char* doing);

    void lock(); ///< throws kBusy, kIo
    void unlock();

  private:
    int fd_;
    off_t byte_;
    std::filesystem::path path_;
    const char* doing_;
    std::mutex threads_; ///< the system's lock does not exclude the threads of one process
};

} // namespace kvr
