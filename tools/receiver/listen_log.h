// SPDX-License-Identifier: MIT
// Log lines of the listener: standard error, one write per line, with the time. Callers pass text from outside through
// `escaped`.
#pragma once

#include <string>
#include <string_view>

namespace kvr {

void listen_log(std::string_view text);
/// Time in UTC with milliseconds, as the log and the journal write it.
std::string time_text();

} // namespace kvr
