// SPDX-License-Identifier: MIT
#include "store/accounts.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "kavutil/error.h"

namespace kvr {

namespace {

/// For an entry of the system's lists; a group that takes more counts as one without a name.
constexpr std::size_t kRoom = 65536;
constexpr const char* kNoGroup = "none";

} // namespace

std::string user_text(uid_t user) {
    std::vector<char> room(kRoom);
    passwd entry{};
    passwd* found = nullptr;
    const bool known = ::getpwuid_r(user, &entry, room.data(), room.size(), &found) == 0 && found != nullptr;
    return known ? std::string("user ") + entry.pw_name : "user id " + std::to_string(user);
}

std::string group_text(std::optional<gid_t> group) {
    if (!group) {
        return kNoGroup;
    }
    std::vector<char> room(kRoom);
    ::group entry{};
    ::group* found = nullptr;
    const bool known = ::getgrgid_r(*group, &entry, room.data(), room.size(), &found) == 0 && found != nullptr;
    return known ? entry.gr_name : std::to_string(*group);
}

std::optional<gid_t> group_named(const std::string& text) {
    if (text == kNoGroup) {
        return std::nullopt;
    }
    std::vector<char> room(kRoom);
    ::group entry{};
    ::group* found = nullptr;
    if (::getgrnam_r(text.c_str(), &entry, room.data(), room.size(), &found) == 0 && found != nullptr) {
        return entry.gr_gid;
    }
    gid_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end || number == std::numeric_limits<gid_t>::max()) {
        throw Error(Errc::kInvalid, "there is no group '" + text + "': give the name or number of one, or none");
    }
    return number;
}

bool has_group(gid_t group) {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, ::getgroups(0, nullptr))));
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(0, count)));
    return ::getegid() == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

} // namespace kvr
