// SPDX-License-Identifier: MIT
#include "listen_log.h"

#include <chrono>
#include <ctime>

#include <fmt/format.h>
#include <unistd.h>

namespace kvr {

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
    const std::string line = fmt::format("{} {}\n", time_text(), text);
    // Nobody is left to tell when the log itself cannot be written.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

} // namespace kvr
