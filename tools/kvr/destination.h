// SPDX-License-Identifier: MIT
// Destinations as operators write and see them.
#pragma once

#include <string>

#include "store/xmit_header.h"

namespace kvr {

/// Reads "QUEUE" or "QUEUE@QMGR". Throws UsageError.
Destination parse_destination(const std::string& text);
/// "QUEUE" or "QUEUE@QMGR".
std::string destination_text(const Destination& destination);

} // namespace kvr
