// SPDX-License-Identifier: MIT
// Between the two halves of the scripted host: the hook of an operation or of a system call.
#pragma once

#include <optional>

namespace kvr::test {

/// Counts the call in the channel process and runs the hook set for it, if any.
std::optional<int> run_hook(const char* op, long a);

} // namespace kvr::test
