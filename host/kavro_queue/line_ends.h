// SPDX-License-Identifier: MIT
// The two ends of the channel's line, as its status names them, and whether it still stands.
#pragma once

#include <string>

namespace kvr {

struct LineEnds {
    std::string local_ip;
    std::string local_port;
    std::string remote_ip;
    std::string remote_port;
    bool operator==(const LineEnds&) const = default;
};

/// Whether this process has a connection with these ends that nobody has closed, reset or shut down; what cannot be
/// found out does not stand. A peer that went without a word is not seen.
bool line_stands(const LineEnds& ends);

} // namespace kvr
