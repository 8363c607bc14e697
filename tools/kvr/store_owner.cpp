// SPDX-License-Identifier: MIT
#include "store_owner.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "kavutil/error.h"

namespace kvr {
namespace {

std::string& note() {
    static std::string text;
    return text;
}

struct User {
    uid_t id;
    gid_t group;
    std::string name; ///< empty: the system knows none
};

User user_of(const struct stat& owned) {
    constexpr std::size_t kRoom = 16384;
    User user{owned.st_uid, owned.st_gid, ""};
    std::vector<char> room(kRoom);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user.id, &entry, room.data(), room.size(), &found) == 0 && found != nullptr) {
        user.group = entry.pw_gid;
        user.name = entry.pw_name;
    }
    return user;
}

bool take_on(const User& user) {
    const int groups = user.name.empty() ? ::setgroups(1, &user.group) : ::initgroups(user.name.c_str(), user.group);
    if (groups != 0 || ::setresgid(user.group, user.group, user.group) != 0 ||
        ::setresuid(user.id, user.id, user.id) != 0) {
        return false;
    }
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (::setresuid(0, 0, 0) == 0) { // the rights stayed: this process was started so that they outlive the user id
        errno = EPERM;
        return false;
    }
    return ::getresuid(&real, &effective, &saved) == 0 && real == user.id && effective == user.id && saved == user.id;
}

} // namespace

void become_owner_of(const std::filesystem::path& path) {
    struct stat owned {};
    if (::geteuid() != 0 || ::lstat(path.c_str(), &owned) != 0) {
        return; // what cannot be looked at cannot be opened either, and that says why
    }
    if (owned.st_uid == 0 && S_ISLNK(owned.st_mode) && ::stat(path.c_str(), &owned) != 0) {
        return;
    }
    if (owned.st_uid == 0) {
        return;
    }
    const User user = user_of(owned);
    const std::string shown = user.name.empty() ? fmt::format("user id {}", user.id) : "user " + user.name;
    if (!take_on(user)) {
        throw Error(Errc::kPermission,
                    fmt::format("{} belongs to {} and this process cannot become that user ({}): run "
                                "kvr as that user",
                                path.native(), shown, std::strerror(errno)));
    }
    if (::access(path.c_str(), X_OK) != 0) {
        throw Error(Errc::kPermission, fmt::format("{} belongs to {}, who cannot reach it ({}): let that user through "
                                                   "the folders above it",
                                                   path.native(), shown, std::strerror(errno)));
    }
    note() = fmt::format(" (done as {}, the owner of {})", shown, path.native());
}

std::string owner_note() {
    return note();
}

} // namespace kvr
