// SPDX-License-Identifier: MIT
// A process that stops in the middle of its work on the store's file, or whose work on it fails.
#pragma once

#include "host/children.h"

namespace kvr::test {

/// The next read or write at a place of a file stops this process first, and fails with this error once it goes on; 0:
/// it is done then.
void stop_at_next_call(int error);
/// Every read and write at a place of a file fails with this error; 0: none does any more.
void fail_calls(int error);
/// The next write of a store's head is done and told to have failed, and every call after it fails.
void fail_after_next_head();
/// Waits until a child has stopped.
void await_stopped(const Child& child);
/// Waits until a process waits for a lock, asking again or not.
void await_waiting(pid_t pid);

} // namespace kvr::test
