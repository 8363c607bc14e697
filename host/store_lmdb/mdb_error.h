// SPDX-License-Identifier: MIT
// Results of LMDB as kvr::Error, with what to do about them. `path` is the folder of the environment.
#pragma once

#include <filesystem>
#include <string>

#include "kavutil/error.h"

namespace kvr {

/// "cannot <doing> in <path>: <reason>", with the code that fits `error`, a result of LMDB or an errno value.
[[noreturn]] void throw_mdb(const char* doing, const std::filesystem::path& path, int error);
/// Throws for any result but success.
void check_mdb(int result, const char* doing, const std::filesystem::path& path);

/// A write of which is not known whether it happened.
class UnknownOutcome : public Error {
  public:
    explicit UnknownOutcome(const Error& error)
        : Error(Errc::kUnknown, std::string(error.what()) +
                                    "; whether the last write happened is not known: look before you repeat it") {}
};

} // namespace kvr
