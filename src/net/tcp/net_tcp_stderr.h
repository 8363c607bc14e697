// SPDX-License-Identifier: MIT
// Private to the library: the TLS helpers' lines on standard error.
#pragma once

/// Writes one line, cut at 1,022 bytes. A reader that does not read, or none, costs the line and nothing else: the call
/// never waits. Keeps errno. Callable from a handler.
__attribute__((format(printf, 1, 2))) void ErrLine(const char* psFmt, ...);
