// SPDX-License-Identifier: MIT
#include "core_ctx/run_lock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <system_error>

#include "kavutil/error.h"
#include "store/lock_holder.h"
#include "store/permissions.h"

namespace kvr {
namespace {

[[noreturn]] void fail(const std::filesystem::path& path) {
    const int cause = errno;
    throw Error(Errc::kIo, "run lock " + path.string() + ": " + std::strerror(cause) +
                               "; check the folder's owner and free space");
}

std::filesystem::path lock_path(const std::filesystem::path& qmgr_dir, const std::string& channel) {
    return qmgr_dir / "run" / ("channel-" + channel + ".lock");
}

struct flock whole_file(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

} // namespace

RunLock::RunLock(const std::filesystem::path& qmgr_dir, const std::string& channel) {
    const std::filesystem::path path = lock_path(qmgr_dir, channel);
    ensure_private_folder(path.parent_path());
    fd_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_) {
        fail(path);
    }
    struct flock lock = whole_file(F_WRLCK);
    if (fcntl(fd_.get(), F_SETLK, &lock) == 0) {
        return;
    }
    if (errno != EACCES && errno != EAGAIN) {
        fail(path);
    }
    throw Error(Errc::kBusy, "channel '" + channel + "' is already run by " +
                                 process_text(lock_holder(fd_.get(), whole_file(F_WRLCK))) +
                                 ": stop it first with 'kvr stop " + channel + "'");
}

pid_t RunLock::holder(const std::filesystem::path& qmgr_dir, const std::string& channel) {
    check_private(qmgr_dir, true);
    const std::filesystem::path path = lock_path(qmgr_dir, channel);
    std::error_code unknown;
    if (std::filesystem::symlink_status(path.parent_path(), unknown).type() == std::filesystem::file_type::not_found) {
        return 0;
    }
    check_private(path.parent_path(), true);
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd) {
        return lock_holder(fd.get(), whole_file(F_WRLCK));
    }
    if (errno != ENOENT) {
        fail(path);
    }
    return 0;
}

} // namespace kvr
