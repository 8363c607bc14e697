// SPDX-License-Identifier: MIT
// Private to the library: whether an operation runs in a signal handler.
#pragma once

/// Takes the calling thread's signal mask for that of the main flow. Before the first call that is an empty one.
void MarkMainFlow();

/// A handler runs with its own signal held, so a signal that has a handler is held beside those of the main flow. The
/// main flow that holds such a one counts as a handler too: what it closes is released a little later, and a failed
/// write shows errno's reason. A held signal without a handler does not count.
/// Callable from a handler. Operations of the main flow alone do not ask.
int InHandler();
