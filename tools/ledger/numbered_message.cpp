// SPDX-License-Identifier: MIT
#include "numbered_message.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>

#include <fmt/format.h>

#include "error.h"
#include "kavro_chl.h"

namespace kvr {

namespace {

constexpr std::size_t kNumberDigits = 8;
constexpr std::size_t kFilePiece = 1U << 16;
/// Around the chunk in which files are read.
constexpr std::array<std::size_t, 2> kAttachedSizes{10240, 300001};
constexpr std::array<std::size_t, 2> kSmallSizes{1, 97};
/// Ends the list of attached files on the wire.
constexpr std::size_t kAttachmentTrailer = 16;

/// Where buffers, segments and fields end.
constexpr std::array<std::size_t, 24> kBorders{0,     1,     71,    72,    73,     255,     256,     1023,
                                               1024,  1025,  4095,  4096,  4097,   16383,   16384,   16385,
                                               65535, 65536, 65537, 99999, 999999, 1048576, 2098303, 2098304};

std::uint64_t mix(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

std::uint64_t seed_of(std::string_view tag, std::uint64_t number, std::uint64_t part) {
    std::uint64_t seed = mix(number) ^ mix(part << 32);
    for (const char letter : tag) {
        seed = mix(seed ^ static_cast<unsigned char>(letter));
    }
    return seed;
}

/// `size` bytes from `offset` (a multiple of 8) of the endless text that belongs to a seed.
std::string bytes_of(std::uint64_t seed, std::size_t offset, std::size_t size) {
    std::string bytes(size, '\0');
    std::uint64_t place = seed + offset / sizeof place;
    for (std::size_t done = 0; done < size; done += sizeof place) {
        const std::uint64_t piece = mix(place++);
        std::memcpy(bytes.data() + done, &piece, std::min(sizeof piece, size - done));
    }
    return bytes;
}

template <std::size_t Size>
void fill(KVRCHAR (&field)[Size], std::string_view text) {
    std::memcpy(field, text.data(), std::min(text.size(), Size));
}

std::string identifier(std::string_view tag, const NumberedMessage& message) {
    return fmt::format("{}-{}-{:0{}}", tag, static_cast<char>(message.kind), message.number, kNumberDigits);
}

} // namespace

std::optional<MessageKind> kind_of(char letter) {
    for (const MessageKind kind : {MessageKind::kData, MessageKind::kAttached, MessageKind::kSmall, MessageKind::kFile,
                                   MessageKind::kHeaderless}) {
        if (letter == static_cast<char>(kind)) {
            return kind;
        }
    }
    return std::nullopt;
}

T_KAVRO_MD descriptor_of(std::string_view tag, const NumberedMessage& message) {
    const auto number = static_cast<int>(message.number);
    T_KAVRO_MD descriptor{};
    fill(descriptor.sStrucId, "MD  ");
    descriptor.iVersion = 2;
    descriptor.iMsgType = number % 1000;
    descriptor.iMsgCode = number % 77;
    fill(descriptor.sMsgId, identifier(tag, message));
    fill(descriptor.sCorrelId, bytes_of(seed_of(tag, message.number, 1), 0, sizeof descriptor.sCorrelId));
    descriptor.cMsgStoreType = message.kind == MessageKind::kFile ? KVR_STORE_FILE : KVR_STORE_DATA;
    descriptor.iUsage = 0x01020304;
    const bool attached = message.kind == MessageKind::kAttached || message.kind == MessageKind::kSmall;
    descriptor.iMsgFlags = attached ? KVR_MSGFLAG_ACCESSORIES : 0;
    descriptor.iExpiry = -1;
    descriptor.iFeedback = -number;
    descriptor.iEncoding = 546;
    descriptor.iCodedCharSetId = 1208;
    descriptor.iPriority = number % 10;
    descriptor.iPersistence = 1;
    descriptor.iMsgSeqNo = number;
    descriptor.iReportOpt = 16;
    fill(descriptor.sFmtName, "LEDGER");
    fill(descriptor.sReplyToQ, "REPLIES");
    fill(descriptor.sReplyToQMgr, "HOME");
    fill(descriptor.sGroupId, fmt::format("{:032}", number / 10));
    descriptor.iPutApplType = 28;
    fill(descriptor.sPutApplName, "kvr_ledger");
    fill(descriptor.sPutDate, "20260102");
    fill(descriptor.sPutTime, "030405");
    return descriptor;
}

std::optional<std::uint64_t> number_of(std::string_view tag, const T_KAVRO_MD& descriptor) {
    const std::string_view id(descriptor.sMsgId, strnlen(descriptor.sMsgId, sizeof descriptor.sMsgId));
    if (id.size() != tag.size() + 3 + kNumberDigits || !id.starts_with(tag) || !kind_of(id[tag.size() + 1])) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    const char* end = id.data() + id.size();
    const auto [stop, error] = std::from_chars(end - kNumberDigits, end, number);
    return error == std::errc{} && stop == end ? std::optional(number) : std::nullopt;
}

bool same_descriptor(const T_KAVRO_MD& one, const T_KAVRO_MD& other) {
    struct Range {
        std::size_t from;
        std::size_t to;
    };
    // All but the gaps between the fields and the pointer at the end.
    constexpr std::array<Range, 3> ranges{
        {{0, offsetof(T_KAVRO_MD, cMsgStoreType) + 1},
         {offsetof(T_KAVRO_MD, iUsage), offsetof(T_KAVRO_MD, sGroupId) + sizeof(T_KAVRO_MD::sGroupId)},
         {offsetof(T_KAVRO_MD, iPutApplType), offsetof(T_KAVRO_MD, sPutTime) + sizeof(T_KAVRO_MD::sPutTime)}}};
    std::array<char, sizeof one> first{};
    std::array<char, sizeof other> second{};
    std::memcpy(first.data(), &one, sizeof one);
    std::memcpy(second.data(), &other, sizeof other);
    return std::ranges::all_of(ranges, [&](const Range& range) {
        return std::memcmp(first.data() + range.from, second.data() + range.from, range.to - range.from) == 0;
    });
}

std::string body_of(std::string_view tag, const NumberedMessage& message) {
    return message.kind == MessageKind::kFile ? std::string()
                                              : bytes_of(seed_of(tag, message.number, 0), 0, message.size);
}

std::vector<NumberedFile> files_of(std::string_view tag, const NumberedMessage& message) {
    std::vector<NumberedFile> files;
    const auto add = [&](std::size_t size) {
        const std::size_t part = files.size() + 2;
        files.push_back(
            {fmt::format("{}-{}.bin", identifier(tag, message), part - 1), size, seed_of(tag, message.number, part)});
    };
    if (message.kind == MessageKind::kAttached) {
        std::ranges::for_each(kAttachedSizes, add);
    } else if (message.kind == MessageKind::kSmall) {
        std::ranges::for_each(kSmallSizes, add);
    } else if (message.kind == MessageKind::kFile) {
        add(std::max<std::size_t>(message.size, 1));
    }
    return files;
}

std::filesystem::path write_file(const std::filesystem::path& folder, const NumberedFile& file) {
    std::filesystem::path path = folder / file.name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (std::size_t done = 0; done < file.size; done += kFilePiece) {
        const std::string piece = bytes_of(file.seed, done, std::min(kFilePiece, file.size - done));
        out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    out.close();
    if (!out) {
        throw Error(Errc::kIo, fmt::format("{} could not be written: is the disk full?", path.string()));
    }
    return path;
}

bool same_file(const std::filesystem::path& path, const NumberedFile& file) {
    std::ifstream in(path, std::ios::binary);
    std::string piece(kFilePiece, '\0');
    std::size_t done = 0;
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
        const auto got = static_cast<std::size_t>(in.gcount());
        if (got > file.size - done || bytes_of(file.seed, done, got) != std::string_view(piece).substr(0, got)) {
            return false;
        }
        done += got;
    }
    return in.eof() && done == file.size;
}

std::uint64_t wire_size(std::string_view tag, const NumberedMessage& message) {
    std::uint64_t size = sizeof(T_KAVRO_CHL_HDR) + sizeof(T_KAVRO_CHL_MD);
    if (message.kind != MessageKind::kFile) {
        size += message.size;
    }
    const std::vector<NumberedFile> files = files_of(tag, message);
    for (const NumberedFile& file : files) {
        size += KVR_CHL_NUM_LEN + file.size;
        size += message.kind == MessageKind::kFile ? 0 : sizeof(T_KAVRO_CHL_ACC_HDR) + file.name.size();
    }
    return size + (message.kind == MessageKind::kFile || files.empty() ? 0 : kAttachmentTrailer);
}

std::size_t varied_size(std::uint64_t number, std::size_t least, std::size_t greatest) {
    if (number <= kBorders.size()) {
        return std::clamp(kBorders.at(number - 1), least, greatest);
    }
    const double share = static_cast<double>(mix(number) >> 11) * 0x1p-53;
    const double span = std::log(static_cast<double>(greatest) + 1) - std::log(static_cast<double>(least) + 1);
    const double size = std::exp(std::log(static_cast<double>(least) + 1) + share * span) - 1;
    return std::clamp(static_cast<std::size_t>(size), least, greatest);
}

} // namespace kvr
