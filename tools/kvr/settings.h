// SPDX-License-Identifier: MIT
// A queue manager's quota as operators give it.
#pragma once

#include <string>

namespace kvr {

/// The quota's bytes as the store takes them. Throws UsageError.
std::string quota_setting(const std::string& text);

} // namespace kvr
