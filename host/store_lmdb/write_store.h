// SPDX-License-Identifier: MIT
// A write to the store: done again after room was made or the environment was opened anew.
#pragma once

#include <functional>

#include "store_lmdb/reserve_file.h"
#include "store_lmdb/transaction.h"

namespace kvr {

/// What a write may do when there is no room.
enum class Need {
    kMayFail, ///< a put: fails, and leaves the reserve to the others
    kMust,    ///< whatever makes room or keeps state: may use the reserve of the disk and make the map larger
};

/// Runs `work` in a write transaction and commits it; runs it again, in a new one, after room was made or the
/// environment was opened anew. So `work` changes nothing but what stands in the transaction until it returned.
void write_store(Environment& env, const ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work);

} // namespace kvr
