// SPDX-License-Identifier: MIT
// What members of a group need of a store that its owner shares with them (store/access.h): the environment, marks and
// FIFOs, the lock of those who take messages, the reserve.
#pragma once

#include <optional>

#include <sys/types.h>

#include "store_lmdb/store_layout.h"

namespace kvr {

/// Lets the group use the store, or nobody but its owner, whose process this is. No other process has it open. Each
/// state between is one in which its owner can use it. Throws kPermission, kIo.
void share_store(const StoreFiles& files, std::optional<gid_t> group);

} // namespace kvr
