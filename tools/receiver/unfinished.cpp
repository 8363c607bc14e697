// SPDX-License-Identifier: MIT
#include "unfinished.h"

#include <algorithm>

namespace kvr {

std::vector<Unfinished> UnfinishedTrial::idle_of(std::span<const Unfinished> all, bool waits) const {
    std::uint64_t greatest = 0;
    for (const Unfinished& one : all) {
        greatest = one.waits == waits ? std::max(greatest, one.kept) : greatest;
    }
    std::vector<Unfinished> idle;
    std::copy_if(all.begin(), all.end(), std::back_inserter(idle), [&](const Unfinished& one) {
        const auto found = before_.find(one.id);
        // Read since then is what waited unread before and what came: both have to be little.
        return one.waits == waits && found != before_.end() && (waits || one.unread == 0) &&
               one.read - found->second.read < kFloor && 2 * one.kept >= greatest;
    });
    return idle;
}

std::vector<std::uint64_t> UnfinishedTrial::judge(std::span<const Unfinished> all, std::uint64_t excess,
                                                  Clock::time_point now) {
    std::vector<std::uint64_t> gone;
    if (now < due_ && due_ != Clock::time_point::max()) {
        return gone;
    }
    std::vector<Unfinished> idle = idle_of(all, false);
    if (idle.empty()) {
        idle = idle_of(all, true);
    }
    std::ranges::sort(idle, std::greater<>{}, &Unfinished::kept);
    std::uint64_t freed = 0;
    for (std::size_t i = 0; i < idle.size() && freed < excess; ++i) {
        gone.push_back(idle[i].id);
        freed += idle[i].kept;
    }
    before_.clear();
    for (const Unfinished& one : all) {
        before_.emplace(one.id, one);
    }
    due_ = now + time_;
    return gone;
}

void UnfinishedTrial::stop() {
    due_ = Clock::time_point::max();
    before_.clear();
}

} // namespace kvr
