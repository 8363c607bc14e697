// SPDX-License-Identifier: MIT
// Stands in for the system's calls that read and write at a place of a file, as an engine makes them on its own.
#pragma once

#include <functional>

#include <sys/types.h>

namespace kvr::test {

/// Called instead of each of them, with the descriptor, the place in the file and the real call; null: nothing is.
using FileCall = std::function<ssize_t()>;
extern std::function<ssize_t(int fd, off_t at, const FileCall& call)> g_file_call;
/// The store's heads lie before this place.
constexpr off_t kEndOfHeads = 8192;

/// Every call fails with this error; 0: none does any more.
void fail_calls(int error);
/// The next call stops this process first, and fails with this error once it goes on; 0: it is done then.
void stop_at_next_call(int error);

} // namespace kvr::test
