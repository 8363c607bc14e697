// SPDX-License-Identifier: MIT
#include "settings.h"

#include <algorithm>

#include <fmt/format.h>

#include "commands.h"
#include "session.h"

namespace kvr {
namespace {

constexpr std::uint64_t kMiB = 1ULL << 20;
constexpr std::uint64_t kSmallestQuota = 4 * kMiB;    ///< one greatest message and its bookkeeping
constexpr std::uint64_t kLargestQuota = 1ULL << 42;   ///< well inside the address space
constexpr std::uint64_t kSmallestReserve = 64 * kMiB; ///< room for deletes above a small quota
constexpr std::uint64_t kReserveShare = 7;            ///< one byte of reserve for so many of the quota

} // namespace

void set_quota(Settings& settings, const std::string& text) {
    settings.quota = parse_size("--quota", text);
    if (settings.quota < kSmallestQuota || settings.quota > kLargestQuota) {
        throw UsageError(fmt::format("--quota {} is not possible: give 4M to 4096G", text));
    }
    const std::uint64_t reserve = std::max(settings.quota / kReserveShare, kSmallestReserve);
    settings.map_size = (settings.quota + reserve + kMiB - 1) / kMiB * kMiB;
}

} // namespace kvr
