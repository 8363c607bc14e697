// SPDX-License-Identifier: MIT
// The ledger: a text file with one line for each message whose put returned success, in the order of the puts:
// "<number> <kind> <size>". Written by one process at a time; a line that a crash cut short is left out when read.
#pragma once

#include <filesystem>
#include <span>
#include <vector>

#include "numbered_message.h"

namespace kvr {

/// Throws Error(kIo).
void append_to_ledger(const std::filesystem::path& path, std::span<const NumberedMessage> messages);
/// Throws Error(kIo, kDamaged).
std::vector<NumberedMessage> read_ledger(const std::filesystem::path& path);

} // namespace kvr
