// SPDX-License-Identifier: MIT
// A queue manager's quota as operators give it.
#pragma once

#include <string>

#include "store.h"

namespace kvr {

/// Sets the quota and an address space that leaves room above it for deletes. Throws UsageError.
void set_quota(Settings& settings, const std::string& text);

} // namespace kvr
