// SPDX-License-Identifier: MIT
// Marks what a host library exports; everything else stays inside it.
#pragma once

#define KVR_EXPORT __attribute__((visibility("default")))
