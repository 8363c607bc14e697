// SPDX-License-Identifier: MIT
// Text in the fields of fixed width that records have.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace kvr {

/// Copies text into a field of `size` bytes that is padded with NULs; what is too long is cut.
inline void fill_text(char* target, std::size_t size, std::string_view text) {
    const std::size_t length = std::min(text.size(), size);
    std::memcpy(target, text.data(), length);
    std::memset(target + length, 0, size - length);
}

/// The text of a field of `size` bytes, up to its first NUL.
inline std::string field_string(const char* source, std::size_t size) {
    return {source, ::strnlen(source, size)};
}

} // namespace kvr
