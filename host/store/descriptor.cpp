// SPDX-License-Identifier: MIT
#include "store/descriptor.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include <sys/random.h>

#include "kavutil/error.h"
#include "store/text_field.h"

namespace kvr {

T_KAVRO_MD blank_descriptor() {
    T_KAVRO_MD descriptor{};
    std::memcpy(descriptor.sStrucId, "MD  ", sizeof descriptor.sStrucId);
    descriptor.iVersion = 2;
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    return descriptor;
}

std::string unique_message_id() {
    // Drawn for each: a number that the process counted would be counted by a forked child, too.
    std::uint64_t drawn = 0;
    if (::getrandom(&drawn, sizeof drawn, 0) != static_cast<ssize_t>(sizeof drawn)) {
        throw Error(Errc::kIo, "the system gives no random numbers");
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    std::array<char, sizeof T_KAVRO_MD::sMsgId + 1> text{};
    (void)std::snprintf(text.data(), text.size(), "%016" PRIX64 "%016" PRIX64, nanoseconds, drawn);
    return text.data();
}

void complete_descriptor(T_KAVRO_MD& descriptor, std::string_view application) {
    if (std::all_of(std::begin(descriptor.sMsgId), std::end(descriptor.sMsgId), [](char c) { return c == '\0'; })) {
        fill_text(descriptor.sMsgId, sizeof descriptor.sMsgId, unique_message_id());
    }
    if (descriptor.sPutApplName[0] == '\0') {
        fill_text(descriptor.sPutApplName, sizeof descriptor.sPutApplName - 1, application);
    }
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    (void)::gmtime_r(&now, &utc);
    if (descriptor.sPutDate[0] == '\0') {
        (void)std::strftime(descriptor.sPutDate, sizeof descriptor.sPutDate, "%Y%m%d", &utc);
    }
    if (descriptor.sPutTime[0] == '\0') {
        (void)std::strftime(descriptor.sPutTime, sizeof descriptor.sPutTime, "%H%M%S", &utc);
    }
}

} // namespace kvr
