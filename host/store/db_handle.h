// SPDX-License-Identifier: MIT
// The handles hObjDB and hQueDB that C callers pass: which store each means. Handles live as long as the process.
#pragma once

#include <memory>

#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

/// Gives a store a handle; the same store gets the same one.
KVR_EXPORT void* db_handle(const std::shared_ptr<Store>& store);
/// Throws kNotOpen for anything that db_handle did not give.
KVR_EXPORT std::shared_ptr<Store> store_of(const void* handle);

} // namespace kvr
