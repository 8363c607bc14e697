// SPDX-License-Identifier: MIT
// Used messages that stay on their queue for a while. The protocol has no acknowledgement: what was sent over a line
// that broke can be gone, and is sent again only if somebody still has it.
//
// A kept message is in nobody's way: not counted in its queue's depth, handed out to nobody, shown by browse_kept
// alone. Its bytes are those that it took on the line, its files aside.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kvr {

/// Kept are messages until they are older than `time`, or as much as `bytes` was used after them, the oldest of them go
/// first. They go in groups as they were used, while the queue's drainer uses messages or waits for them: so a group
/// more than `bytes` can be there.
struct KeepLimits {
    std::chrono::seconds time{0}; ///< since they were used; 0: nothing is kept, and what was kept goes
    std::uint64_t bytes = 0;
};

/// Which messages of a line can be gone when it breaks: those of its last `time`, 0 for all its time, of which no more
/// than `bytes` were used behind them. A group of messages is as old as its last one.
struct LossWindow {
    std::chrono::seconds time{0};
    std::uint64_t bytes = 0;
};

/// How a queue is drained.
struct DrainOptions {
    std::optional<KeepLimits> keep; ///< nothing: used messages are deleted, those that are kept are left alone
    LossWindow window;              ///< with `keep`
    bool repeat = false;            ///< what can be gone is handed out again, before all else
    [[nodiscard]] bool keeps() const { return keep && keep->time.count() > 0; }
};

/// What can be gone with a line. The sequences are places of the queue, as a browse shows them.
struct Loss {
    std::uint64_t messages = 0; ///< 0: nothing
    std::uint64_t bytes = 0;
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    bool cut_short = false; ///< older ones can be gone, too, and are not kept any more
};

/// Of a kept message.
struct KeptFacts {
    std::int64_t used_at = 0; ///< seconds since the epoch: when the last one of its group was used
    bool suspected = false;   ///< can be gone with a line that broke, and was not handed out again since
};

/// Messages of a queue from place to place.
struct Places {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
};

/// What two messages have in common that are one and the same, and no others; made by the caller from all of a message
/// that counts.
using MessageIdentity = std::array<char, 16>;

} // namespace kvr
