// SPDX-License-Identifier: MIT
// The files that a message on a transmission queue brings along.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kavro_api.h"

namespace kvr {

[[nodiscard]] inline bool has_files(const T_KAVRO_MD& descriptor) {
    return descriptor.cMsgStoreType == KVR_STORE_FILE || (descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0;
}

/// Full paths of the attached files. Throws kInvalid.
std::vector<std::string> attachments_of(const T_KAVRO_MD& descriptor);

struct UnusableFile {
    std::string path;
    bool gone; ///< false: it cannot be opened for now
};

/// The first of a message's own files, attached or sent itself, that cannot be opened as a regular file with something
/// in it; nothing when all can.
/// @param data  with its transmission header
std::optional<UnusableFile> unusable_file(const T_KAVRO_MD& descriptor, std::span<const char> data);

} // namespace kvr
