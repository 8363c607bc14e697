// SPDX-License-Identifier: MIT
// Which run of the system this is: what was written into shared memory in an earlier one may be older than the store.
#pragma once

#include <array>

namespace kvr {

/// A text, padded with NULs.
using BootId = std::array<char, 40>;

/// Throws kIo where the system does not tell.
const BootId& boot_id();

} // namespace kvr
