// SPDX-License-Identifier: MIT
// The fields of a message descriptor as one table: the option that sets each, its name in output, its place and width.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "kavro_api.h"

namespace kvr {

enum class FieldKind {
    kNumber, ///< 32-bit integer
    kText,   ///< padded with NULs and ended by one
    kDigits, ///< text of exactly `size` - 1 digits
    kId,     ///< bytes over the whole width: as text, or 0x and up to 64 hexadecimal digits
    kChar,   ///< one character
};

struct DescriptorField {
    std::string_view name;  ///< in output, and the option that sets it without its dashes
    std::string_view label; ///< for people
    FieldKind kind;
    std::size_t offset; ///< in T_KAVRO_MD
    std::size_t size;
    std::string_view help; ///< of the option; empty: not settable by an option of its own
};

std::span<const DescriptorField> descriptor_fields();

/// The value for people and programs; reading it back with set_field gives the same bytes.
std::string field_text(const T_KAVRO_MD& descriptor, const DescriptorField& field);
/// The message id as field_text gives it.
std::string message_id_text(const T_KAVRO_MD& descriptor);
int field_number(const T_KAVRO_MD& descriptor, const DescriptorField& field);
/// Throws UsageError that names the option.
void set_field(T_KAVRO_MD& descriptor, const DescriptorField& field, const std::string& text);

} // namespace kvr
