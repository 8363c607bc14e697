// SPDX-License-Identifier: MIT
// The descriptor of a message that is about to be put.
#pragma once

#include <string>
#include <string_view>

#include "kavro_api.h"
#include "kavutil/export.h"

namespace kvr {

/// "MD  ", version 2, storage type KVR_STORE_DATA, the rest clear.
KVR_EXPORT T_KAVRO_MD blank_descriptor();
/// 32 characters that no other message has, of whatever process and system. Throws kIo.
KVR_EXPORT std::string unique_message_id();
/// Fills what the putter left unset: message id, put date and time (UTC), the application's name.
KVR_EXPORT void complete_descriptor(T_KAVRO_MD& descriptor, std::string_view application);

} // namespace kvr
