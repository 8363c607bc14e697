// SPDX-License-Identifier: MIT
// Texts that must never show in a log.
#pragma once

#include "kavutil/export.h"

extern "C" {

/// Registers a text that the log shows as ******** from then on: within brackets, "[text]", whatever its length, and
/// anywhere when it has four bytes or more (shorter ones would blot out half of every line). An empty or null text is
/// ignored, a known one kept once. The texts are copied; the oldest makes room when the table of 16 is full. Not for
/// signal handlers.
KVR_EXPORT void kvr_log_add_secret(const char* text);
}
