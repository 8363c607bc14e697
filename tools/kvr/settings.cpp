// SPDX-License-Identifier: MIT
#include "settings.h"

#include <fmt/format.h>

#include "commands.h"
#include "session.h"

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

} // namespace kvr
