// SPDX-License-Identifier: MIT
// Errors of the operating system and of LMDB as kvr::Error, with what to do about them.
#pragma once

#include <filesystem>

#include "error.h"

namespace kvr {

/// What ran out.
enum class Shortage {
    kDisk,
    kMap,
    kQuota,
};

/// kFull, with what the store can do about it by itself.
class FullError : public Error {
  public:
    FullError(Shortage shortage, const std::string& text) : Error(Errc::kFull, text), shortage_(shortage) {}
    [[nodiscard]] Shortage shortage() const { return shortage_; }

  private:
    Shortage shortage_;
};

/// "cannot <doing> <path>: <reason>", with the code that fits `error` (an errno value). Never kNotFound: that is a
/// queue or an object that is not defined, while a file of the store that is missing is trouble with the store.
[[noreturn]] void throw_system(const char* doing, const std::filesystem::path& path, int error);
/// The same for a result of LMDB. `path` is the folder of the environment.
[[noreturn]] void throw_mdb(const char* doing, const std::filesystem::path& path, int error);

} // namespace kvr
