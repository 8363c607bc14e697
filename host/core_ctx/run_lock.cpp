// SPDX-License-Identifier: MIT
#include "core_ctx/run_lock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <system_error>

#include "kavutil/error.h"
#include "store/access.h"
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
    require_owner(qmgr_dir, "run its channels");
    const std::optional<gid_t> group = check_access(qmgr_dir).group;
    ensure_private_folder(path.parent_path());
    fd_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_) {
        fail(path);
    }
    if (group) { // whose members ask for the lock's holder; who changes the group waits for the end of this process
        show_to_group(path.parent_path(), *group);
        show_to_group(path, *group);
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
    const Access access = check_access(qmgr_dir);
    const std::filesystem::path path = lock_path(qmgr_dir, channel);
    std::error_code unknown;
    if (std::filesystem::symlink_status(path.parent_path(), unknown).type() == std::filesystem::file_type::not_found) {
        return 0;
    }
    check_part(path.parent_path(), true, access);
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd) {
        return lock_holder(fd.get(), whole_file(F_WRLCK));
    }
    const bool is_unseen = errno == EACCES && !access.is_owner(); // not run since there is a group
    if (errno != ENOENT && !is_unseen) {
        fail(path);
    }
    return 0;
}

} // namespace kvr
