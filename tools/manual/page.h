// SPDX-License-Identifier: MIT
// The manual page of a command, from the parser's description of it: the same texts as --help, none left out.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "parts.h"

namespace kvr {

/// "kvr-define-queue".
std::string page_name(const CLI::App& command);

/// The page in man macros.
/// @param parts   its hand-written parts, which follow the text of the help
/// @param common  the parts that all pages have, before its own
/// @param date    of the page, YYYY-MM-DD
std::string command_page(const CLI::App& command, const Sections& parts, const Sections& common,
                         const std::string& date);

} // namespace kvr
