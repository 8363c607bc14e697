// SPDX-License-Identifier: MIT
// A queue manager's quota and group as operators give them.
#pragma once

#include <string>

#include "store/store.h"

namespace kvr {

/// The quota's bytes as the store takes them. Throws UsageError.
std::string quota_setting(const std::string& text);
/// After the group was changed: warns where its members do not come as far as the queue manager's folder.
void warn_of_group(const Store& store);

} // namespace kvr
