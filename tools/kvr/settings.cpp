// SPDX-License-Identifier: MIT
#include "settings.h"

#include <optional>

#include <unistd.h>

#include <fmt/format.h>

#include "commands.h"
#include "output.h"
#include "session.h"
#include "store/access.h"
#include "store/accounts.h"

namespace kvr {
namespace {

constexpr std::uint64_t kSmallestQuota = 4ULL << 20; ///< one greatest message and its bookkeeping
constexpr std::uint64_t kLargestQuota = 1ULL << 42;  ///< well inside the address space

} // namespace

std::string quota_setting(const std::string& text) {
    const std::uint64_t quota = parse_size("--quota", text);
    if (quota < kSmallestQuota || quota > kLargestQuota) {
        throw UsageError(fmt::format("--quota {} is not possible: give 4M to 4096G", text));
    }
    return std::to_string(quota);
}

void warn_of_group(const Store& store) {
    const std::string name = store.settings()["group"]; // empty where an engine has none
    const std::optional<gid_t> group = name.empty() ? std::nullopt : group_named(name);
    if (!group) {
        return;
    }
    remark(fmt::format("warning: members of group {} can read and change all messages and definitions of {} and the "
                       "pass phrase of its key, and have its channels send whatever {} can read",
                       name, store.qmgr(), user_text(::geteuid())));
    if (const auto folder = folder_in_the_way(store.dir().parent_path(), *group); !folder.empty()) {
        remark(fmt::format("warning: {} does not let them through to it yet: run chmod o+x on it", folder.native()));
    }
}

} // namespace kvr
