// SPDX-License-Identifier: MIT
// What the worker wants to know of the objects that the channel writes.
#pragma once

#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

using StatusHook = void (*)(const Attributes& status);

/// From now on called with what is written into a status object that names a state: before the write, and of a line
/// that is up, RUNING, when the write is done. Null, as at first: nobody is told.
KVR_EXPORT void object_set_status_hook(StatusHook hook);

} // namespace kvr
