// SPDX-License-Identifier: MIT
// Tells a test of every use of the heap, with and without sanitizers. For programs that list heap_watch.cpp among their
// sources.
#pragma once

namespace kvr::test {

/// Called in every thread before memory is taken or given back; null: nobody looks.
extern void (*heap_used)();

} // namespace kvr::test
