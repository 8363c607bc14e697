// SPDX-License-Identifier: MIT
// Messages that can be told from their number alone: who knows a run's tag, a number, a kind and a size can make the
// message again, byte for byte, and so judge a copy of it anywhere without having kept the original.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kavro_api.h"

namespace kvr {

enum class MessageKind : char {
    kData = 'D',
    kAttached = 'A',   ///< data and two attached files
    kSmall = 'S',      ///< data and two attached files of a few bytes
    kFile = 'F',       ///< a file message
    kHeaderless = 'H', ///< put on a transmission queue without its header
};

/// Longest tag of a run; letters and digits.
constexpr std::size_t kMaxTag = 16;

struct NumberedMessage {
    std::uint64_t number; ///< 1 to 99,999,999
    MessageKind kind;
    std::size_t size; ///< bytes of data, or of the file of a file message
};

std::optional<MessageKind> kind_of(char letter);

/// Every field has a value of its own; the identifier carries tag, kind and number.
T_KAVRO_MD descriptor_of(std::string_view tag, const NumberedMessage& message);
/// The number in an identifier that descriptor_of made for this tag.
std::optional<std::uint64_t> number_of(std::string_view tag, const T_KAVRO_MD& descriptor);
/// Whether the fields that travel are those of descriptor_of.
bool same_descriptor(const T_KAVRO_MD& one, const T_KAVRO_MD& other);

/// The data; of a file message nothing.
std::string body_of(std::string_view tag, const NumberedMessage& message);

struct NumberedFile {
    std::string name; ///< base name, unique within the run
    std::size_t size;
    std::uint64_t seed;
};
/// The files that travel with the message: attached ones, or the file message's own.
std::vector<NumberedFile> files_of(std::string_view tag, const NumberedMessage& message);
/// Writes the file into a folder and returns its path. Throws Error(kIo).
std::filesystem::path write_file(const std::filesystem::path& folder, const NumberedFile& file);
/// Whether a file has exactly the bytes that write_file writes.
bool same_file(const std::filesystem::path& path, const NumberedFile& file);

/// Bytes that the message takes on the wire; of a file message without the path of its file.
std::uint64_t wire_size(std::string_view tag, const NumberedMessage& message);

/// A size between the two for a number: the borders of buffers and segments first, then every order of magnitude alike.
std::size_t varied_size(std::uint64_t number, std::size_t least, std::size_t greatest);

} // namespace kvr
