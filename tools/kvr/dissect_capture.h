// SPDX-License-Identifier: MIT
// kvr dissect on a packet capture: the channels' streams in it, told apart by their connections.
#pragma once

#include <cstdio>
#include <string>

namespace kvr {

struct CaptureOptions {
    std::string name;   ///< of the file, printable, for errors
    std::string filter; ///< in the words of tcpdump; empty: every packet
    bool json = false;
    bool full = false; ///< bodies and files whole
};

/// Shows frames in the order in which their last bytes came.
/// @param file  at the beginning of a capture; taken over
/// Throws kvr::Error when the capture cannot be read, holds no channel's stream, or one that is not whole.
void dissect_capture(std::FILE* file, const CaptureOptions& options);

} // namespace kvr
