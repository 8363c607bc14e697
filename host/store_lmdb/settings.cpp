// SPDX-License-Identifier: MIT
#include "store_lmdb/settings.h"

#include <algorithm>
#include <charconv>

#include "store/accounts.h"

namespace kvr {

namespace {

constexpr std::uint64_t kMiB = 1ULL << 20;

std::uint64_t parse_bytes(const std::string& name, const std::string& text) {
    std::uint64_t bytes = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, bytes);
    if (error != std::errc{} || rest != end) {
        throw Error(Errc::kInvalid, "the setting " + name + " takes a number of bytes, not '" + text + "'");
    }
    return bytes;
}

std::uint64_t map_size_for(std::uint64_t quota) {
    constexpr std::uint64_t kLeastReserve = 64 * kMiB;
    constexpr std::uint64_t kShare = 7; ///< one byte of reserve for so many of the quota
    const std::uint64_t reserve = std::max(quota / kShare, kLeastReserve);
    return (quota + reserve + kMiB - 1) / kMiB * kMiB;
}

void check_room(const LmdbSettings& settings) {
    constexpr std::uint64_t kLeastRoom = kMiB; // for the tables' own pages and those not yet free again
    constexpr std::uint64_t kShare = 8;
    if (settings.quota > settings.map_size ||
        settings.map_size - settings.quota < kLeastRoom + settings.quota / kShare) {
        throw Error(Errc::kInvalid, "the map size has to be above the quota by an eighth of it and 1 MiB: quota " +
                                        std::to_string(settings.quota) + ", map size " +
                                        std::to_string(settings.map_size));
    }
}

} // namespace

LmdbSettings changed_settings(LmdbSettings settings, const Settings& changes) {
    for (const auto& [name, text] : changes) {
        if (name == "quota") {
            settings.quota = parse_bytes(name, text);
            settings.map_size = changes.contains("map_size") ? settings.map_size : map_size_for(settings.quota);
        } else if (name == "map_size") {
            settings.map_size = parse_bytes(name, text);
        } else if (name == "sync" && (text == "on" || text == "off")) {
            settings.sync = text == "on";
        } else if (name == "sync") {
            throw Error(Errc::kInvalid, "the setting sync is on or off, not '" + text + "'");
        } else if (name == kGroupSetting) {
            static_cast<void>(group_named(text));
        } else {
            throw Error(Errc::kUnknownAttr,
                        "the store has no setting '" + name + "'; it has quota, map_size, sync, group");
        }
    }
    check_room(settings);
    return settings;
}

Settings settings_as_texts(const LmdbSettings& settings) {
    return {{"quota", std::to_string(settings.quota)},
            {"map_size", std::to_string(settings.map_size)},
            {"sync", settings.sync ? "on" : "off"}};
}

} // namespace kvr
