// SPDX-License-Identifier: MIT
// The hand-written parts of the pages: files of man macros whose .SH lines say which section the text belongs to.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace kvr {

/// The sections of a page in their order.
inline constexpr const char* kSections[] = {"NAME",     "SYNOPSIS",       "DESCRIPTION", "COMMANDS",    "ARGUMENTS",
                                            "OPTIONS",  "GLOBAL OPTIONS", "EXIT STATUS", "ENVIRONMENT", "FILES",
                                            "EXAMPLES", "NOTES",          "SEE ALSO"};

using Sections = std::map<std::string, std::string>; ///< text by name

/// The parts of one page, PAGE.man in the folder; none when there is no such file. Throws std::runtime_error for text
/// that has no section or one that no page has.
Sections read_parts(const std::filesystem::path& folder, const std::string& page);

} // namespace kvr
