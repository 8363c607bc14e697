// SPDX-License-Identifier: MIT
// Text as the man macros want it.
#pragma once

#include <string>

namespace kvr {

/// The text for the formatter, each character printed as it is: ASCII quotes and dashes can be copied into a shell.
std::string roff(const std::string& text);
std::string bold(const std::string& text);
std::string italic(const std::string& text);
/// A tagged paragraph.
std::string tagged(const std::string& tag, const std::string& text);
/// Lines that are not filled, as in a terminal.
std::string verbatim(const std::string& lines);
/// A sentence: with a capital and a full stop.
std::string sentence(std::string text);

} // namespace kvr
