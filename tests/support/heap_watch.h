// SPDX-License-Identifier: MIT
// Tells a test of every use of the heap, in programs that list heap_watch.cpp among their sources. It is the address
// sanitizer that tells: in other builds nobody is called.
#pragma once

namespace kvr::test {

/// Called in every thread before memory is taken or given back; null: nobody looks.
extern void (*heap_used)();

} // namespace kvr::test
