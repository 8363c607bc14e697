// SPDX-License-Identifier: MIT
#include "sender_order.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace kvr {

namespace {

/// One of the same address that was accepted earlier and has not said its name yet could be an older line.
const Connection* unnamed_before(const SenderOrder::Connections& connections, const Connection& line,
                                 Clock::time_point now) {
    for (const auto& older : connections) {
        if (older->id() >= line.id()) {
            break;
        }
        if (older->unnamed() && older->host() == line.host() && now < older->quiet_at()) {
            return older.get();
        }
    }
    return nullptr;
}

bool waits_for_older(const SenderPlace& place, Clock::time_point now) {
    const Connection* const older = place.older;
    return older != nullptr && (older->place().waits || (now < older->quiet_at() &&
                                                         older->reading_time().at(now) - place.since < kLongestWait));
}

} // namespace

void SenderOrder::line_up(const Connections& connections, Clock::time_point now) {
    std::unordered_map<std::string_view, const Connection*> last;
    for (const auto& connection : connections) {
        if (!connection->in_line()) {
            continue;
        }
        const Connection*& before = last[connection->sender()];
        SenderPlace& place = connection->place();
        if (place.older != before) {
            place.older = before;
            place.since = before == nullptr ? Clock::duration{} : before->reading_time().at(now);
        }
        before = connection.get();
    }
}

void SenderOrder::decide(const Connections& connections, Clock::time_point now) {
    for (const auto& connection : connections) {
        SenderPlace& place = connection->place();
        if (place.let_by || !connection->in_line()) {
            continue;
        }
        place.waits = waits_for_older(place, now) || unnamed_before(connections, *connection, now) != nullptr;
        place.let_by = !place.waits;
    }
}

Clock::time_point SenderOrder::next_look(const Connections& connections, Clock::time_point now) {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& connection : connections) {
        const SenderPlace& place = connection->place();
        if (!place.waits) {
            continue;
        }
        if (waits_for_older(place, now)) {
            if (!place.older->place().waits) {
                next = std::min(
                    {next, place.older->quiet_at(), place.older->reading_time().when(place.since + kLongestWait)});
            }
        } else if (const Connection* const unnamed = unnamed_before(connections, *connection, now)) {
            next = std::min(next, unnamed->quiet_at());
        }
    }
    return next;
}

} // namespace kvr
