// SPDX-License-Identifier: MIT
// Which kept messages of a queue are to be handed out again, and what that would send. It reads their data and keeps
// none of it: of a million messages no more than the places, as ranges.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/store.h"

namespace kvr {

/// Exactly one of them is set.
struct ReplayChoice {
    std::optional<std::int64_t> since; ///< used then or later
    std::uint64_t last = 0;            ///< so many, those with the greatest places
    bool suspected = false;            ///< those that can be gone with a line that broke
};

/// The first or the last of the chosen messages.
struct ReplayEnd {
    std::uint64_t sequence = 0;
    std::string message_id;
    std::int64_t used_at = 0;
};

struct ReplayPlan {
    std::uint64_t kept = 0;      ///< messages that there were to choose from
    std::uint64_t messages = 0;  ///< chosen ones
    std::uint64_t bytes = 0;     ///< theirs on the line, their files aside
    std::uint64_t suspected = 0; ///< of the chosen ones
    std::uint64_t files = 0;     ///< theirs that are there
    std::uint64_t file_bytes = 0;
    std::uint64_t without_files = 0; ///< chosen messages of which a file is gone by now
    ReplayEnd first;                 ///< of `messages`, as are
    ReplayEnd last;
    std::vector<Places> places; ///< no kept message that was not chosen lies within one of them
};

/// Throws what Store::browse_kept does.
ReplayPlan plan_replay(Store& store, const std::string& queue, const ReplayChoice& choice);

} // namespace kvr
