// SPDX-License-Identifier: MIT
#include "store/access.h"

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/accounts.h"
#include "store/permissions.h"
#include "store/qmgr_folder.h"
#include "store/system_error.h"

namespace kvr {

namespace fs = std::filesystem;

namespace {

struct stat facts_of(const fs::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        throw_system("find", path, errno);
    }
    return info;
}

std::vector<fs::path> folders_down_to(const fs::path& path) {
    std::vector<fs::path> folders;
    fs::path folder;
    for (const fs::path& name : fs::absolute(path)) {
        folder /= name;
        folders.push_back(folder);
    }
    return folders;
}

[[noreturn]] void refuse_stranger(const fs::path& dir, const Access& access) {
    const std::string owner = user_text(access.owner);
    const std::string me = user_text(::geteuid());
    if (access.group) {
        const std::string group = group_text(access.group);
        throw Error(Errc::kPermission, dir.string() + " belongs to " + owner + ", who lets the members of group " +
                                           group + " use it, and this process of " + me +
                                           " is none of them: run as one, or have " + me + " added to group " + group +
                                           " and log in again");
    }
    throw Error(Errc::kPermission, dir.string() + " belongs to " + owner + ", not to " + me + ": run as " + owner +
                                       ", or ask " + owner + " for 'kvr set qmgr --group GROUP' with a group of " + me +
                                       ", or give the folder to " + me + " with chown");
}

void check_kind(const fs::path& path, const struct stat& info, bool folder) {
    if (folder ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
        throw Error(Errc::kPermission, path.string() + " is not a plain " + (folder ? "folder" : "file"));
    }
}

/// Contents and all: members made it, and only its owner can keep others out of it.
void make_own(const fs::path& file) {
    const fs::path aside = file.native() + ".own";
    std::error_code error;
    fs::remove(aside, error);
    if (!fs::copy_file(file, aside, error) || ::rename(aside.c_str(), file.c_str()) != 0) {
        throw_system("take over", file, error ? error.value() : errno);
    }
}

void set_access(const fs::path& path, std::optional<gid_t> group, mode_t mode) {
    const gid_t wanted = group.value_or(::getegid());
    if (::lchown(path.c_str(), static_cast<uid_t>(-1), wanted) != 0) {
        throw_system("give to its group", path, errno);
    }
    set_mode(path, mode, "protect");
}

} // namespace

bool Access::is_owner() const {
    return owner == ::geteuid();
}

void refuse_on_the_way(const fs::path& path) {
    for (const fs::path& folder : folders_down_to(path)) {
        struct stat info {};
        if (::faccessat(AT_FDCWD, folder.c_str(), X_OK, AT_EACCESS) != 0 && ::lstat(folder.c_str(), &info) == 0) {
            throw Error(Errc::kPermission,
                        folder.string() + " belongs to " + user_text(info.st_uid) + " and does not let " +
                            user_text(::geteuid()) + " through: run as " + user_text(info.st_uid) +
                            ", or ask for 'kvr set qmgr --group GROUP' and for chmod o+x on " + folder.string());
        }
    }
    throw_system("find", path, EACCES);
}

Access check_access(const fs::path& dir) {
    struct stat info {};
    if (::lstat(dir.c_str(), &info) != 0) {
        if (errno == EACCES) {
            refuse_on_the_way(dir);
        }
        throw_system("find", dir, errno);
    }
    check_kind(dir, info, true);
    Access access{.owner = info.st_uid, .group = {}};
    if ((info.st_mode & 07777) == kSharedGate) {
        access.group = info.st_gid;
    }
    if (!access.is_owner() && !(access.group && has_group(*access.group))) {
        refuse_stranger(dir, access);
    }
    check_part(dir, true, access);
    return access;
}

void check_part(const fs::path& path, bool folder, const Access& access) {
    const struct stat info = facts_of(path);
    check_kind(path, info, folder);
    const bool is_shared = access.group && info.st_gid == *access.group;
    if (info.st_uid != ::geteuid() && info.st_uid != access.owner && !is_shared) {
        throw Error(Errc::kPermission, path.string() + " belongs to " + user_text(info.st_uid) + ", not to " +
                                           user_text(access.owner) + ": give it to that user with chown");
    }
    if ((info.st_mode & (is_shared ? S_IWOTH : S_IWGRP | S_IWOTH)) != 0) {
        const std::string remedy = access.group ? "chmod o-w and chgrp " + group_text(access.group) : "chmod go-w";
        throw Error(Errc::kPermission,
                    "others can write to " + path.string() + ": check what they did, then run " + remedy + " on it");
    }
}

void require_owner(const fs::path& dir, const char* doing) {
    if (const Access access = check_access(dir); !access.is_owner()) {
        throw Error(Errc::kPermission, std::string("only ") + user_text(access.owner) + ", the owner of " +
                                           dir.string() + ", can " + doing + ": run this as " +
                                           user_text(access.owner) + ", members of group " + group_text(access.group) +
                                           " may use its queues");
    }
}

void choose_group(const fs::path& dir, std::optional<gid_t> group) {
    if (group && ::geteuid() != 0 && !has_group(*group)) {
        throw Error(Errc::kPermission, user_text(::geteuid()) + ", the owner of " + dir.string() +
                                           ", is not in group " + group_text(group) +
                                           " and cannot give it anything: have that user added to the group and log "
                                           "in again");
    }
    set_access(dir, group, group ? kSharedGate : kPrivateFolder);
    if (group && fs::exists(dir / kEngineFile)) {
        show_to_group(dir / kEngineFile, *group);
    }
}

void share_folder(const fs::path& folder, std::optional<gid_t> group, bool take_over) {
    set_access(folder, {}, kPrivateFolder); // nobody puts a link in a file's place meanwhile
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (take_over && facts_of(entry.path()).st_uid != ::geteuid()) {
            if (!fs::is_regular_file(entry.symlink_status())) {
                fs::remove(entry.path());
                continue;
            }
            make_own(entry.path());
        }
        share_file(entry.path(), group);
    }
    if (group) {
        set_access(folder, group, kSharedFolder);
    }
}

void share_file(const fs::path& file, std::optional<gid_t> group) {
    struct stat info {};
    if (::lstat(file.c_str(), &info) == 0) {
        set_access(file, group, group ? kSharedFile : kPrivateFile);
    }
}

void show_to_group(const fs::path& path, gid_t group) {
    constexpr mode_t kShownFolder = 02750;
    constexpr mode_t kShownFile = 0640;
    set_access(path, group, fs::is_directory(fs::symlink_status(path)) ? kShownFolder : kShownFile);
}

fs::path folder_in_the_way(const fs::path& path, gid_t group) {
    for (const fs::path& folder : folders_down_to(path)) {
        struct stat info {};
        const bool known = ::stat(folder.c_str(), &info) == 0;
        if (known && (info.st_mode & (info.st_gid == group ? S_IXGRP : S_IXOTH)) == 0) {
            return folder;
        }
    }
    return {};
}

} // namespace kvr
