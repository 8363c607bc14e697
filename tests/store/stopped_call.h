// SPDX-License-Identifier: MIT
// A process that stops in the middle of its work on the store's file.
#pragma once

#include "host/children.h"

namespace kvr::test {

/// The next read or write at a place of a file stops this process first, and fails with this error once it goes on; 0:
/// it is done then.
void stop_at_next_call(int error);
/// Waits until a child has stopped.
void await_stopped(const Child& child);

} // namespace kvr::test
