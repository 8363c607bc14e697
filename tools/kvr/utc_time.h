// SPDX-License-Identifier: MIT
// Points in time as operators write and see them, in UTC. Seconds are those since the epoch.
#pragma once

#include <cstdint>
#include <string>

namespace kvr {

/// "2026-11-24T08:15:00Z".
std::string utc_text(std::int64_t seconds);

/// Reads an age before `now` ("90s", "10m", "2h", "3d"), or a time: "2026-11-24", "2026-11-24 08:15", "2026-11-24
/// 08:15:30", also with a T between, a fraction and a Z behind, as logs have them. Throws UsageError that names `what`,
/// also for a time after `now`.
std::int64_t parse_past(const std::string& what, const std::string& text, std::int64_t now);

} // namespace kvr
