// SPDX-License-Identifier: MIT
#include "store_lmdb/drain_lock.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "store/lock_holder.h"
#include "store/permissions.h"
#include "store/system_error.h"

namespace kvr {

namespace {

struct flock byte_lock(std::uint32_t queue, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = queue;
    lock.l_len = 1;
    return lock;
}

} // namespace

DrainLocks::DrainLocks(const std::filesystem::path& path) : fd_(open_allocated_file(path, 0)) {}

pid_t DrainLocks::lock(std::uint32_t queue, short type) {
    for (;;) {
        struct flock lock = byte_lock(queue, type);
        if (::fcntl(fd_.get(), F_SETLK, &lock) == 0) {
            return 0;
        }
        if (errno != EAGAIN && errno != EACCES) {
            throw Error(Errc::kIo, "cannot lock the queue: " + std::string(std::strerror(errno)));
        }
        if (const pid_t holder = lock_holder(fd_.get(), byte_lock(queue, type)); holder != 0) {
            return holder;
        }
    }
}

pid_t DrainLocks::acquire(std::uint32_t queue) {
    const std::scoped_lock guard(mutex_);
    if (ours_.contains(queue)) {
        return ::getpid();
    }
    const pid_t holder = lock(queue, F_WRLCK);
    if (holder == 0) {
        ours_[queue] = 0;
    }
    return holder;
}

pid_t DrainLocks::acquire_shared(std::uint32_t queue) {
    const std::scoped_lock guard(mutex_);
    const auto known = ours_.find(queue);
    if (known != ours_.end()) {
        return known->second == 0 ? ::getpid() : (++known->second, 0);
    }
    const pid_t holder = lock(queue, F_RDLCK);
    if (holder == 0) {
        ours_[queue] = 1;
    }
    return holder;
}

void DrainLocks::release(std::uint32_t queue) {
    const std::scoped_lock guard(mutex_);
    const auto known = ours_.find(queue);
    if (known != ours_.end() && known->second > 1) {
        --known->second;
        return;
    }
    struct flock lock = byte_lock(queue, F_UNLCK);
    ::fcntl(fd_.get(), F_SETLK, &lock);
    ours_.erase(queue);
}

pid_t DrainLocks::holder(std::uint32_t queue) {
    const std::scoped_lock guard(mutex_);
    return ours_.contains(queue) ? ::getpid() : lock_holder(fd_.get(), byte_lock(queue, F_WRLCK));
}

} // namespace kvr
