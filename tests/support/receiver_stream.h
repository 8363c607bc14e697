// SPDX-License-Identifier: MIT
// Hand-built byte streams of a channel for the tests of the receiving end. Everything is spelled out as text, so that
// neither the sender's code nor the wire records can hide a mistake in the splitter.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvr::test {

inline std::string nuls(std::size_t count) {
    return std::string(count, '\0');
}

inline std::string padded(std::string_view text, std::size_t width) {
    return std::string(text) + nuls(width - text.size());
}

/// A number below 100,000,000 in 8 digits.
inline std::string digits(std::size_t value) {
    return std::to_string(100'000'000 + value).substr(1);
}

inline std::string big_endian(std::int32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
            static_cast<char>(value)};
}

inline std::string frame(char type, std::string_view queue, std::string_view msg_type, std::string_view msg_code,
                         std::string_view package) {
    return "000000750100000000" + std::string(1, type) + padded(queue, 32) + std::string(msg_type) +
           std::string(msg_code) + digits(package.size()) + std::string(package);
}

inline std::string bind_frame(std::string_view channel) {
    return frame('1', "", "00000000", "00000000", channel);
}

inline std::string heartbeat_frame() {
    return frame('2', "", "00000000", "00000000", "");
}

/// A descriptor block with recognisable values in every field.
inline std::string block(char store_type, std::int32_t flags) {
    return padded("ID", 32) + padded("CORREL", 32) + std::string(1, store_type) + nuls(3) + big_endian(11) +
           big_endian(flags) + big_endian(-1) + big_endian(13) + big_endian(546) + big_endian(1208) + big_endian(5) +
           big_endian(1) + big_endian(0x01020304) + big_endian(-16) + padded("FORMAT", 9) + padded("REPLY.Q", 33) +
           padded("REPLY.QM", 33) + padded("GROUP", 32) + nuls(1) + big_endian(28) + padded("APPL", 33) +
           padded("20260102", 9) + padded("030405", 7) + nuls(3);
}

inline std::string attachment_block(const std::vector<std::string>& names) {
    std::string entries;
    for (const std::string& name : names) {
        entries += digits(name.size()) + nuls(72) + name;
    }
    return entries + digits(names.size()) + digits(entries.size());
}

inline std::string file_frame(std::string_view content) {
    return digits(content.size()) + std::string(content);
}

inline std::string message(std::string_view queue, std::string_view body) {
    return frame('0', queue, "00000007", "-0000005", block('1', 0) + std::string(body));
}

/// A name and a content.
using NamedFile = std::pair<std::string, std::string>;

inline std::string message_with_files(std::string_view queue, std::string_view body,
                                      const std::vector<NamedFile>& files) {
    std::vector<std::string> names;
    std::string frames;
    for (const auto& [name, content] : files) {
        names.push_back(name);
        frames += file_frame(content);
    }
    return frame('0', queue, "00000000", "00000000", block('1', 4) + std::string(body) + attachment_block(names)) +
           frames;
}

inline std::string file_message(std::string_view queue, const NamedFile& file) {
    return frame('4', queue, "00000000", "00000000", block('2', 0) + file.first) + file_frame(file.second);
}

} // namespace kvr::test
