// SPDX-License-Identifier: MIT
// The drainer of a queue.
#pragma once

#include <memory>
#include <string>

#include "store_impl.h"

namespace kvr {

/// Takes the queue over. Throws kNotFound, kBusy.
std::unique_ptr<Getter> drain_queue(std::shared_ptr<StoreImpl> store, const std::string& queue);

} // namespace kvr
