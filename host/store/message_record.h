// SPDX-License-Identifier: MIT
// A message as the store keeps it: a versioned header, the descriptor without its pointer, the paths of the attached
// files, the data. Decoding believes nothing that a record says about itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "store/store.h"

namespace kvr {

/// Greatest path of an attached file, without NUL.
constexpr std::size_t kMaxAttachmentPath = KVR_ACC_PATH_SIZE - 1;

/// A decoded record; the views point into it.
struct MessageView {
    const char* descriptor;         ///< kDescriptorSize bytes
    std::uint32_t attachment_count; ///< at most KVR_ACC_MAX
    std::string_view attachments;   ///< read with next_attachment; every length in it was checked
    std::span<const char> data;
};

/// Bytes of the descriptor that are kept: all but the pointer at its end.
constexpr std::size_t kDescriptorSize = offsetof(T_KAVRO_MD, pOptData);

/// Throws kInvalid, kTooLarge for a message that the store does not take.
KVR_EXPORT void check_message(const OutgoingMessage& message);
KVR_EXPORT std::size_t encoded_size(const OutgoingMessage& message);
/// Writes encoded_size(message) bytes.
KVR_EXPORT void encode_message(const OutgoingMessage& message, char* out);
/// Throws kDamaged. Any bytes may be given.
KVR_EXPORT MessageView decode_message(std::span<const char> record);
/// Takes the first path off a checked list.
KVR_EXPORT std::string_view next_attachment(std::string_view& list);

/// Bytes of data of a record as its header says; 0 for a damaged one. Enough for accounts, not for reading.
KVR_EXPORT std::uint64_t data_bytes(std::string_view record);

} // namespace kvr
