// SPDX-License-Identifier: MIT
// What the recorder writes down and the replay reads: each call that changes files below a folder, in one order for all
// processes. Paths and data follow a record.
#pragma once

#include <cstdint>

namespace kvr::test {

/// The folder whose files are recorded, and the file for the records outside of it.
inline constexpr char kPowerFolder[] = "KVR_POWER_FOLDER";
inline constexpr char kPowerRecords[] = "KVR_POWER_RECORDS";

enum class PowerEvent : std::uint32_t {
    kWrite,
    kSyncedWrite, ///< to a descriptor with O_DSYNC
    kResize,      ///< `offset` is the new size
    kSync,        ///< of a file or a folder
    kFile,        ///< made
    kFolder,
    kFifo,
    kLink,
    kRename,
    kUnlink,
};

struct PowerRecord {
    PowerEvent event = PowerEvent::kWrite;
    std::uint32_t path_size = 0;  ///< of a change to a folder: the entry
    std::uint32_t other_size = 0; ///< the second path of a link or rename, which is the new one
    std::uint32_t data_size = 0;
    std::uint64_t inode = 0;  ///< as the system numbers it: used again after its end
    std::uint64_t parent = 0; ///< the folder whose entry changes
    std::uint64_t offset = 0;
};

} // namespace kvr::test
