// SPDX-License-Identifier: MIT
// A message as text for people and as JSON, the same for get and browse.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kavro_api.h"
#include "output.h"

namespace kvr {

struct ShownMessage {
    std::optional<std::uint64_t> sequence; ///< its place on the queue, when known
    const T_KAVRO_MD& descriptor;
    std::span<const std::string> attachments;
    std::string_view data;
    std::string_view state;                    ///< on its queue; empty: it is on none
    std::string used_at{};                     ///< of a kept one: when; else empty
    std::optional<std::uint32_t> given_back{}; ///< times that takers had it and it came back, where that is known
};

enum class DataForm {
    kNone,
    kText, ///< text where the data is text, otherwise escaped; base64 in JSON
    kHex,
};

/// Whether the message is more than people can be shown as text: binary, and longer than a few screens.
bool is_long_binary(const ShownMessage& message);

/// Every descriptor field, the transmission header, the attachments, the data; long binary data is cut in the form of
/// text.
std::string message_text(const ShownMessage& message, DataForm form);
Json message_json(const ShownMessage& message, DataForm form);

} // namespace kvr
