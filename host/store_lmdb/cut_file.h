// SPDX-License-Identifier: MIT
// Whether the store's file still has all its pages. It is mapped: what was cut off it would end the process with SIGBUS
// wherever it is read first.
#pragma once

#include <filesystem>

namespace kvr {

class Environment;

/// Before the environment is opened: LMDB takes an empty file for a new one. Throws Error(kDamaged).
void check_not_empty(const std::filesystem::path& file);

/// After it was opened, before more than its head is read. Throws Error(kDamaged) when pages in use are missing. Free
/// pages may be: LMDB never writes what it took and freed within one transaction.
void check_not_cut(Environment& env, const std::filesystem::path& file);

} // namespace kvr
