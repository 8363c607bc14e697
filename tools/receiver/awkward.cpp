// SPDX-License-Identifier: MIT
#include "awkward.h"

#include <algorithm>

namespace kvr {

Awkward::Awkward(const AwkwardOptions& options, std::uint64_t connection) : switches_(options) {
    if ((options.first != 0 && connection > options.first) || (options.step != 0 && connection % 2 == 0)) {
        switches_ = {};
    }
    for (std::optional<std::uint64_t>* at : {&switches_.close_after, &switches_.reset_after, &switches_.stall_after}) {
        if (*at) {
            **at += connection / 2 * switches_.step;
        }
    }
}

Awkward::Act Awkward::due(std::uint64_t received) const {
    return switches_.reset_after == received   ? Act::kReset
           : switches_.close_after == received ? Act::kEnd
           : switches_.stall_after == received ? Act::kStall
                                               : Act::kNone;
}

std::uint64_t Awkward::limit(std::uint64_t wanted, std::uint64_t received,
                             std::chrono::steady_clock::duration age) const {
    std::uint64_t limit = wanted;
    for (const auto& at : {switches_.close_after, switches_.reset_after, switches_.stall_after}) {
        if (at) {
            limit = std::min(limit, *at - received);
        }
    }
    if (switches_.read_rate != 0) {
        const double seconds = std::chrono::duration<double>(age).count();
        const auto allowed = static_cast<std::uint64_t>(seconds * static_cast<double>(switches_.read_rate));
        limit = allowed > received ? std::min(limit, allowed - received) : 0;
    }
    return limit;
}

} // namespace kvr
