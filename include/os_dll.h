// SPDX-License-Identifier: MIT
// Loaded shared libraries.
#pragma once

/// Opaque handle of a loaded shared library, owned by the plug-in manager.
typedef void* H_DllFile;
