// SPDX-License-Identifier: MIT
#include "shortage.h"

#include <algorithm>

#include <fmt/format.h>

namespace kvr {

namespace {

constexpr const char* kGivenUp = "unfinished messages given up";

} // namespace

void Shortage::note(const Connection& connection, std::size_t before, Clock::time_point now) {
    memory_ += connection.memory() - before;
    if (memory_short() && favoured_ == 0 && connection.memory() > kShare && !connection.awaits_files()) {
        favoured_ = connection.id();
        favour_end_ = connection.reading_time().at(now) + kFavourTime;
    }
}

bool Shortage::holds_back(const Connection& connection) const {
    return memory_short() && connection.memory() > kShare && !connection.awaits_files() && favoured_ != 0 &&
           favoured_ != connection.id();
}

void Shortage::relieve(Connections& connections, bool reading, Clock::time_point now) {
    relieve_memory(connections, reading, now);
    relieve_spool(connections, reading, now);
}

void Shortage::relieve_memory(Connections& connections, bool reading, Clock::time_point now) {
    if (!memory_short()) {
        favoured_ = 0;
        memory_trial_.stop();
        return;
    }
    for (const auto& connection : connections) {
        connection->trim();
    }
    if (!reading) {
        memory_trial_.stop();
        return;
    }
    review_favour(connections, now);
    std::vector<Unfinished> all;
    for (const auto& connection : connections) {
        const bool waits = connection->waits_for_spool();
        if (connection->memory() > kShare && (waits || !connection->paused())) {
            all.push_back(
                {connection->id(), connection->memory(), connection->received(), connection->unread(), waits});
        }
    }
    // Half of it becomes free, so that it lasts for a while.
    try_unfinished(memory_trial_, connections, all, memory_ - kMemoryBudget / 2, "memory", now);
}

/// Whoever waits for room in the spool keeps its turn: the next one would fill memory as well.
void Shortage::review_favour(Connections& connections, Clock::time_point now) {
    const auto favoured = std::ranges::find(connections, favoured_, &Connection::id);
    if (favoured == connections.end() || (*favoured)->closed() || (*favoured)->memory() <= kShare ||
        ((*favoured)->paused() && !(*favoured)->waits_for_spool())) {
        favoured_ = 0;
        return;
    }
    const bool others_wait = std::ranges::any_of(
        connections, [&](const auto& connection) { return holds_back(*connection) && connection->unread() > 0; });
    if (others_wait && (*favoured)->reading_time().at(now) >= favour_end_) {
        (*favoured)->close("its message takes too long while memory is short and others wait", kGivenUp);
    }
}

/// Files that find no room wait for it, but not for an unfinished file that does not grow: a sender's that fell silent,
/// or one of those that wait themselves, unless it is the only one.
void Shortage::relieve_spool(Connections& connections, bool reading, Clock::time_point now) {
    const auto waiting = std::ranges::count_if(connections, [](const auto& one) { return one->short_of_room(); });
    if (waiting == 0 || !reading) {
        spool_trial_.stop();
        return;
    }
    std::vector<Unfinished> all;
    for (const auto& connection : connections) {
        const bool waits = connection->short_of_room();
        if (connection->spooled() > 0 && (!waits || waiting > 1)) {
            all.push_back(
                {connection->id(), connection->spooled(), connection->received(), connection->unread(), waits});
        }
    }
    try_unfinished(spool_trial_, connections, all, 1, "room in the spool", now);
}

void Shortage::try_unfinished(UnfinishedTrial& trial, Connections& connections, std::span<const Unfinished> all,
                              std::uint64_t excess, std::string_view what, Clock::time_point now) {
    for (const std::uint64_t id : trial.judge(all, excess, now)) {
        const auto at = std::ranges::find(connections, id, &Connection::id);
        const auto kept = std::ranges::find(all, id, &Unfinished::id)->kept;
        (*at)->close(
            fmt::format("its unfinished message keeps {} bytes and does not grow while {} is short", kept, what),
            kGivenUp);
    }
}

} // namespace kvr
