// SPDX-License-Identifier: MIT
// Whole files and standard input, up to a limit; files that are sent along.
#pragma once

#include <cstdint>
#include <string>

namespace kvr {

/// Reads a file, or standard input for "-". Throws Error: unreadable, or more than `limit` bytes (kTooLarge).
std::string read_input(const std::string& file, std::size_t limit, const std::string& what);

/// The absolute path of a file that a channel can send: regular, readable, 1 to 99,999,999 bytes, its path at most
/// `max_path` bytes. Throws Error.
std::string sendable_file(const std::string& file, std::size_t max_path);

} // namespace kvr
