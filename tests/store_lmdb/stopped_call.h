// SPDX-License-Identifier: MIT
// A process that stops in the middle of its work on the store's file, or whose work on it fails: stands in for the
// system's calls that read and write at a place of a file.
#pragma once

namespace kvr::test {

/// The next call stops this process first, and fails with this error once it goes on; 0: it is done then.
void stop_at_next_call(int error);
/// Every call fails with this error; 0: none does any more.
void fail_calls(int error);
/// The next write of a store's head is done and told to have failed, and every call after it fails.
void fail_after_next_head();

} // namespace kvr::test
