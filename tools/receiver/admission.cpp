// SPDX-License-Identifier: MIT
#include "admission.h"

#include <algorithm>
#include <unordered_map>

#include <sys/resource.h>

namespace kvr {

namespace {

constexpr std::size_t kOtherDescriptors = 64;   ///< store, spool, journal, standard ones, and some to spare
constexpr std::size_t kDescriptorsPerPlace = 2; ///< the socket, and the file that is coming in

} // namespace

std::size_t places_for_connections(std::size_t wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return wanted;
    }
    const rlim_t needed = wanted * kDescriptorsPerPlace + kOtherDescriptors;
    if (limit.rlim_cur < needed) {
        rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(needed, limit.rlim_max);
        limit = ::setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised : limit;
    }
    const rlim_t others = std::min<rlim_t>(kOtherDescriptors, limit.rlim_cur / 2);
    return std::clamp<std::size_t>((limit.rlim_cur - others) / kDescriptorsPerPlace, 1, wanted);
}

std::optional<std::size_t> who_makes_room(std::span<const Occupied> places, std::string_view address,
                                          std::chrono::steady_clock::duration least_idle, std::size_t most_of_one) {
    std::unordered_map<std::string_view, std::size_t> of_address;
    for (const Occupied& place : places) {
        ++of_address[place.address];
    }
    std::optional<std::size_t> chosen;
    for (std::size_t i = 0; i < places.size(); ++i) {
        const Occupied& place = places[i];
        const bool idle = place.idle >= least_idle || (address.empty() && of_address[place.address] > most_of_one);
        if (!place.may_go || !idle || (!address.empty() && place.address != address)) {
            continue;
        }
        const auto rank = [&](const Occupied& one) { return std::pair(of_address[one.address], one.idle); };
        if (!chosen || rank(place) > rank(places[*chosen])) {
            chosen = i;
        }
    }
    return chosen;
}

} // namespace kvr
