// SPDX-License-Identifier: MIT
// Reads the fields of the channel's wire records: text numbers, padded texts, the descriptor block. Nothing here trusts
// what it reads; a field that is not what it should be gives nothing.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kavro_api.h"
#include "kavro_chl.h"

namespace kvr {

/// Decimal digits over the field's whole width.
std::optional<long> parse_number(std::span<const char> field);
/// The same, or a minus sign and digits.
std::optional<long> parse_signed_number(std::span<const char> field);
/// Text up to the first NUL; nothing when another byte than NUL follows one.
std::optional<std::string_view> parse_padded_text(std::span<const char> field);
/// The descriptor that travels in the 272 bytes of a descriptor block; iMsgType, iMsgCode and pOptData stay 0.
T_KAVRO_MD decode_descriptor(std::span<const char, sizeof(T_KAVRO_CHL_MD)> block);

/// Bytes for a log line or a JSON text: control characters, '%', '"', '\\' and bytes beyond ASCII appear as %XX.
std::string escaped(std::string_view bytes);
/// `escaped` without the NULs at the end of a fixed field.
std::string escaped_field(std::span<const char> field);

} // namespace kvr
