// SPDX-License-Identifier: MIT
// What may reach a terminal or a log as it is. Without the heap: lines are made in signal handlers, too.
#pragma once

#include <cstddef>

namespace kvr {

/// Bytes of the printable character at `text` (1 for ASCII, 2 to 4 for well-formed UTF-8), 0 when it is none: control
/// characters, the C1 ones in their two-byte form included, and stray bytes. `left`: bytes from `text` on, at least 1.
inline std::size_t printable_length(const char* text, std::size_t left) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
        low = lead == 0xc2 ? 0xa0 : low;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : low;
        high = lead == 0xed ? 0x9f : high;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : low;
        high = lead == 0xf4 ? 0x8f : high;
    }
    if (length == 0 || length > left || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return length;
}

} // namespace kvr
