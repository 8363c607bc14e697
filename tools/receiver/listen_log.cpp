// SPDX-License-Identifier: MIT
#include "listen_log.h"

#include <algorithm>
#include <ctime>

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kavutil/service.h"

namespace kvr {

namespace {

std::uint64_t g_dropped = 0;
RepeatedLines g_repeated;

/// A pipe whose reader does not read takes lines up to its buffer only; a write of up to PIPE_BUF bytes to one that
/// polls as writable does not block, and goes whole or not at all.
bool takes_a_line() {
    pollfd entry{STDERR_FILENO, POLLOUT, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0;
}

void write_line(std::string_view text, const char* mark) {
    constexpr std::size_t kLongest = 4096; // PIPE_BUF
    std::string line = fmt::format("{}{} {}", mark, time_text(), text);
    line.resize(std::min(line.size(), kLongest - 1));
    line += '\n';
    // Nobody is left to tell when the log itself cannot be written.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

/// @param mark  of the line's priority, or ""
void say(std::string_view text, const char* mark) {
    if (g_dropped > 0 && takes_a_line()) {
        write_line(fmt::format("{} lines are missing here: standard error took none", std::exchange(g_dropped, 0)), "");
    }
    if (takes_a_line()) {
        write_line(text, mark);
    } else {
        ++g_dropped;
    }
}

} // namespace

std::string time_text() {
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(system_clock::now());
    const std::time_t seconds = system_clock::to_time_t(now);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                       utc.tm_hour, utc.tm_min, utc.tm_sec, now.time_since_epoch().count() % 1000);
}

void listen_log(std::string_view text) {
    say(text, "");
}

void listen_warning(std::string_view text) {
    say(text, journal_mark(STDERR_FILENO, "<4>"));
}

void listen_log(std::string_view text, std::string_view cause, std::string_view peer) {
    if (cause.empty() || g_repeated.admit(cause, peer, RepeatedLines::Clock::now())) {
        listen_log(text);
    }
}

std::chrono::steady_clock::time_point log_counts(bool all) {
    using SteadyClock = RepeatedLines::Clock;
    const SteadyClock::time_point now = all ? SteadyClock::time_point::max() : SteadyClock::now();
    for (std::string line; g_repeated.end_interval(now, line);) {
        listen_log(line);
    }
    return g_repeated.due();
}

bool RepeatedLines::admit(std::string_view cause, std::string_view peer, Clock::time_point now) {
    std::pair<std::string, std::string> key(cause, peer);
    if (intervals_.size() >= kMaxKeys && !intervals_.contains(key)) {
        std::erase_if(intervals_,
                      [now](const auto& entry) { return entry.second.end <= now && !entry.second.left_out; });
        if (intervals_.size() >= kMaxKeys) {
            key = {"of all kinds", "other addresses"};
        }
    }
    Interval& interval = intervals_[std::move(key)];
    if (interval.left_out == 0 && interval.end <= now) {
        interval.end = now + kLogInterval;
        return true;
    }
    ++interval.left_out;
    return false;
}

bool RepeatedLines::end_interval(Clock::time_point now, std::string& line) {
    const auto over = std::find_if(intervals_.begin(), intervals_.end(), [now](const auto& entry) {
        return entry.second.left_out > 0 && entry.second.end <= now;
    });
    if (over == intervals_.end()) {
        return false;
    }
    const auto& [cause, peer] = over->first;
    line = fmt::format("{}: {} more from {} in {} seconds", cause, over->second.left_out, peer, kLogInterval.count());
    // What follows at once is a new interval, not a line of its own: a peer that goes on gets one line in each.
    over->second = {over->second.end + kLogInterval, 0};
    return true;
}

RepeatedLines::Clock::time_point RepeatedLines::due() const {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& [key, interval] : intervals_) {
        next = interval.left_out > 0 ? std::min(next, interval.end) : next;
    }
    return next;
}

} // namespace kvr
