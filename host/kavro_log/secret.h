// SPDX-License-Identifier: MIT
// The table of registered secrets, searched for every line that is written. Safe in signal handlers.
#pragma once

#include <cstddef>

namespace kvr {

/// Length of the secret that begins at text[at], 0 for none. With `cut`, a text that ends within a secret counts too.
std::size_t secret_at(const char* text, std::size_t at, std::size_t length, bool cut);

} // namespace kvr
