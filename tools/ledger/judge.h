// SPDX-License-Identifier: MIT
// Judges a run: where is each message of the ledger, and is it what was put?
//
// Each must be exactly one of: delivered whole, waiting on the transmission queue, held there, on the dead-letter
// queue, or lost in a cut, which only a run of messages can be that is not longer than what sender, network and
// receiver had in their buffers when the line broke. Whatever is altered, partial, out of order or unknown is a fault.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "numbered_message.h"

namespace kvr {

struct Place {
    std::filesystem::path store; ///< folder of the queue manager
    std::string queue;
};

struct Run {
    std::string tag;
    std::vector<NumberedMessage> sent;
    std::filesystem::path files; ///< folder of the files as they were put
    std::vector<Place> delivered;
    std::vector<Place> waiting;
    std::vector<Place> dead;
    std::vector<std::filesystem::path> spools; ///< folders that hold nothing but files of delivered messages
    std::uint64_t cuts = 0;                    ///< broken connections that may have cost messages
    std::uint64_t window = 0;                  ///< bytes on the wire that one cut may have cost
    std::uint64_t repeats = 0;                 ///< second copies that are allowed
};

struct Verdict {
    std::uint64_t sent = 0;
    std::uint64_t delivered = 0;
    std::uint64_t waiting = 0;
    std::uint64_t held = 0;
    std::uint64_t dead = 0;
    std::uint64_t lost = 0;
    std::uint64_t repeated = 0;
    std::uint64_t delivered_bytes = 0; ///< data and files
    std::uint64_t lost_bytes = 0;      ///< on the wire
    std::vector<std::string> faults;   ///< empty: the run is good
};

/// Reads the queues without changing them. Throws kvr::Error when a store cannot be read.
Verdict judge(const Run& run);

} // namespace kvr
