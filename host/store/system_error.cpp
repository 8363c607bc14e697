// SPDX-License-Identifier: MIT
// Errors of the operating system as kvr::Error, with what to do about them.
#include "store/system_error.h"

#include <cerrno>
#include <string>
#include <system_error>

namespace kvr {

void throw_system(const char* doing, const std::filesystem::path& path, int error) {
    const std::string text =
        std::string("cannot ") + doing + " " + path.string() + ": " + std::generic_category().message(error);
    switch (error) {
    case EEXIST:
    case ENOTEMPTY:
        throw Error(Errc::kExists, text);
    case EACCES:
    case EPERM:
        throw Error(Errc::kPermission, text + "; check its owner and mode, and those of the folders above it");
    case ELOOP:
        throw Error(Errc::kPermission, text + "; put the thing itself there, links are not followed");
    case EROFS:
        throw Error(Errc::kPermission, text);
    case ENOSPC:
    case EDQUOT:
        throw FullError(Shortage::kDisk, text + "; free some space and try again, nothing that was accepted is lost");
    default:
        throw Error(Errc::kIo, text);
    }
}

} // namespace kvr
