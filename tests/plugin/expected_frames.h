// SPDX-License-Identifier: MIT
// The frames of the wire, built from literals and offsets and from nothing that the sender uses.
#pragma once

#include <string>
#include <vector>

#include "kavro_api.h"

namespace kvr::test {

/// The first 8 characters of the zero-padded number.
inline std::string digits(long value) {
    char text[32];
    snprintf(text, sizeof text, "%08ld", value);
    return std::string(text, 8);
}

inline std::string padded(std::string text, size_t width) {
    text.resize(width);
    return text;
}

inline std::string frame_header(char type, const std::string& dest, const std::string& msg_type,
                                const std::string& msg_code, size_t package) {
    return std::string("00000075") + "01" + "00000000" + type + padded(dest, 32) + msg_type + msg_code +
           digits(static_cast<long>(package));
}

inline std::string bind_frame(const std::string& name = "CH1") {
    return frame_header('1', "", "00000000", "00000000", name.size()) + name;
}

inline std::string heartbeat_frame() {
    return frame_header('2', "", "00000000", "00000000", 0);
}

/// A descriptor block that carries nothing but a storage type and flags.
inline std::string plain_block(char store_type, int flags = 0) {
    std::string block(272, '\0');
    block[64] = store_type;
    block[75] = static_cast<char>(flags);
    return block;
}

/// One message without attachments, of type 1 and code 0, for the queue Q1.
inline std::string data_frame(const std::string& body) {
    return frame_header('0', "Q1", "00000001", "00000000", 272 + body.size()) + plain_block('1') + body;
}

/// The attachment block of these base names.
inline std::string attachment_block(const std::vector<std::string>& names) {
    std::string entries;
    for (const std::string& name : names) {
        entries += digits(static_cast<long>(name.size())) + std::string(72, '\0') + name;
    }
    return entries + digits(static_cast<long>(names.size())) + digits(static_cast<long>(entries.size()));
}

inline std::string file_frame(const std::string& content) {
    return digits(static_cast<long>(content.size())) + content;
}

} // namespace kvr::test
