// SPDX-License-Identifier: MIT
// Errors of the operating system as kvr::Error, with what to do about them.
#pragma once

#include <filesystem>

#include "kavutil/error.h"

namespace kvr {

/// What ran out.
enum class Shortage {
    kDisk,
    kStore, ///< room inside the store, whatever the disk has
    kQuota,
};

/// kFull, with what ran out: an engine can do something about some of it by itself.
class KVR_EXPORT FullError : public Error {
  public:
    FullError(Shortage shortage, const std::string& text) : Error(Errc::kFull, text), shortage_(shortage) {}
    [[nodiscard]] Shortage shortage() const { return shortage_; }

  private:
    Shortage shortage_;
};

/// "cannot <doing> <path>: <reason>", with the code that fits `error` (an errno value). Never kNotFound: that is a
/// queue or an object that is not defined, while a file of the store that is missing is trouble with the store.
[[noreturn]] KVR_EXPORT void throw_system(const char* doing, const std::filesystem::path& path, int error);

} // namespace kvr
