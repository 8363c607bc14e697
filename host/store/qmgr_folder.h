// SPDX-License-Identifier: MIT
// A queue manager's folder as a whole: made and deleted so that others see all of it or nothing, whatever fails.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "kavutil/export.h"

namespace kvr {

/// In the folder: the name of the store's engine.
constexpr const char* kEngineFile = "engine";

/// Makes the folder (0700), with the name of the store's engine unless that is empty, and with what `fill` makes in the
/// folder that it is given. Throws kExists.
void make_qmgr_folder(const std::filesystem::path& dir, const std::string& engine,
                      const std::function<void(const std::filesystem::path&)>& fill);
/// Name of the engine that the folder's queue manager uses, empty where it says none. Throws kPermission, kIo,
/// kDamaged when it is no name of an engine.
std::string engine_of(const std::filesystem::path& dir);
/// For engines. Throws kIo with what is left of it.
KVR_EXPORT void delete_qmgr_folder(const std::filesystem::path& dir);

} // namespace kvr
