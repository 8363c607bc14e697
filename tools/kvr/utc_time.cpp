// SPDX-License-Identifier: MIT
#include "utc_time.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <optional>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "commands.h"
#include "output.h"

namespace kvr {
namespace {

constexpr std::size_t kDayLength = 10;    ///< of "2026-11-24"
constexpr std::size_t kMinuteLength = 16; ///< with hour and minute
constexpr std::size_t kSecondLength = 19;

std::tm in_utc(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm utc{};
    (void)::gmtime_r(&time, &utc);
    return utc;
}

std::optional<std::int64_t> parse_age(std::string_view text) {
    constexpr std::int64_t kMinuteSeconds = 60;
    constexpr std::int64_t kHourSeconds = 60 * kMinuteSeconds;
    constexpr std::int64_t kDaySeconds = 24 * kHourSeconds;
    std::uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest + 1 != end) {
        return std::nullopt;
    }
    switch (*rest) {
    case 's':
        return number;
    case 'm':
        return number * kMinuteSeconds;
    case 'h':
        return number * kHourSeconds;
    case 'd':
        return number * kDaySeconds;
    default:
        return std::nullopt;
    }
}

/// "2026-11-24 08:15:30", or a beginning of it.
std::string without_ornament(std::string text) {
    if (text.size() > kDayLength && text[kDayLength] == 'T') {
        text[kDayLength] = ' ';
    }
    if (text.size() > kDayLength + 1 && text.back() == 'Z') {
        text.pop_back();
    }
    if (text.size() > kSecondLength + 1 && text[kSecondLength] == '.' &&
        text.find_first_not_of("0123456789", kSecondLength + 1) == std::string::npos) {
        text.resize(kSecondLength);
    }
    return text;
}

std::optional<std::int64_t> parse_time(const std::string& text) {
    if (text.size() != kDayLength && text.size() != kMinuteLength && text.size() != kSecondLength) {
        return std::nullopt;
    }
    constexpr std::string_view kRest = "0000-00-00 00:00:00";
    const std::string whole = text + std::string(kRest.substr(text.size()));
    std::tm utc{};
    const char* const end = ::strptime(whole.c_str(), "%Y-%m-%d %H:%M:%S", &utc);
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    const std::time_t seconds = ::timegm(&utc);
    const bool same = fmt::format("{:%F %T}", in_utc(seconds)) == whole; // no 30th of February
    return same ? std::optional<std::int64_t>(seconds) : std::nullopt;
}

} // namespace

std::string utc_text(std::int64_t seconds) {
    return fmt::format("{:%FT%TZ}", in_utc(seconds));
}

std::int64_t parse_past(const std::string& what, const std::string& text, std::int64_t now) {
    if (const auto age = parse_age(text)) {
        return std::max<std::int64_t>(now - *age, 0);
    }
    const auto time = parse_time(without_ornament(text));
    if (!time) {
        throw UsageError(fmt::format("{} '{}' is no time: give an age, such as 90s, 10m, 2h or 3d, or a time in UTC, "
                                     "such as '2026-11-24 08:15'",
                                     what, printable(text)));
    }
    if (*time > now) {
        throw UsageError(fmt::format("{} '{}' lies in the future, it is {} now: give a time in UTC, or an age, such as "
                                     "10m",
                                     what, printable(text), utc_text(now)));
    }
    return *time;
}

} // namespace kvr
