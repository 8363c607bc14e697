// SPDX-License-Identifier: MIT
#include "proof.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>

#include <fmt/format.h>
#include <zlib.h>

#include "kavro_chl.h"
#include "kavutil/error.h"
#include "store/text_field.h"
#include "store/xmit_header.h"

namespace kvr {
namespace {

constexpr std::string_view kFormat = "KVRLOAD";
constexpr std::uint32_t kAttachedFiles = 2;
constexpr std::size_t kPiece = 1U << 16;

/// Where buffers, segments and fields end.
constexpr std::array<std::size_t, 26> kBorders{0,     1,     71,    72,    73,    255,     256,     1023,   1024,
                                               1025,  4095,  4096,  4097,  10239, 10240,   10241,   16383,  16384,
                                               16385, 65535, 65536, 65537, 99999, 1048576, 2098303, 2098304};

/// Evenly spread 64-bit numbers (the splitmix sequence): one multiplication chain for each.
std::uint64_t mix(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15ULL;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBULL;
    return value ^ (value >> 31);
}

/// Of data (part 0) or of a file (part 1 and on).
std::uint64_t seed_of(const ProofPlan& plan, std::uint32_t number, std::uint32_t part) {
    return mix(plan.seed ^ mix(std::uint64_t{part} << 32 | number));
}

/// `size` bytes from `offset` (a multiple of 8) of the endless sequence that belongs to a seed.
std::string bytes_of(std::uint64_t seed, std::size_t offset, std::size_t size) {
    std::string bytes(size, '\0');
    std::uint64_t place = seed + offset / sizeof place;
    for (std::size_t done = 0; done < size; done += sizeof place) {
        const std::uint64_t value = mix(place++);
        std::memcpy(bytes.data() + done, &value, std::min(sizeof value, size - done));
    }
    return bytes;
}

/// @param turn  counts the sizes of a run that are drawn from this range, from 0
std::size_t size_within(const SizeRange& range, std::uint64_t turn, std::uint64_t seed) {
    if (turn < kBorders.size()) {
        return std::clamp(kBorders.at(turn), range.least, range.greatest);
    }
    const double share = static_cast<double>(mix(seed) >> 11) * 0x1p-53;
    const double least = std::log(static_cast<double>(range.least) + 1);
    const double greatest = std::log(static_cast<double>(range.greatest) + 1);
    const double size = std::exp(least + share * (greatest - least)) - 1;
    return std::clamp(static_cast<std::size_t>(size), range.least, range.greatest);
}

std::size_t data_size(const ProofPlan& plan, std::uint32_t number) {
    return plan.kind == ProofKind::kFile ? 0 : size_within(plan.data, number - 1, seed_of(plan, number, 0));
}

std::uint32_t files_in(const ProofPlan& plan) {
    return plan.kind == ProofKind::kData ? 0 : plan.kind == ProofKind::kFile ? 1 : kAttachedFiles;
}

struct File {
    std::uint64_t seed;
    std::size_t size;
    std::string name;
};

std::vector<File> files_of(const ProofPlan& plan, std::uint32_t number) {
    std::vector<File> files;
    for (std::uint32_t part = 1; part <= files_in(plan); ++part) {
        const std::uint64_t seed = seed_of(plan, number, part);
        const std::uint64_t turn = std::uint64_t{number - 1} * files_in(plan) + part - 1;
        files.push_back(
            {seed, size_within(plan.file, turn, seed), fmt::format("{:016X}.{}.{}", plan.seed, number, part)});
    }
    return files;
}

/// Grows over the parts of a message.
struct Digest {
    std::uint32_t crc = 0;
    std::size_t size = 0; ///< data and files

    void cover(std::string_view bytes) {
        crc = static_cast<std::uint32_t>(::crc32_z(crc, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
    }
    void add(std::string_view bytes) {
        cover(bytes);
        size += bytes.size();
    }
    /// All fields but the correlation id, which holds the digest; neither the gaps between them nor the pointer.
    void cover(const T_KAVRO_MD& descriptor) {
        const std::string_view bytes(reinterpret_cast<const char*>(&descriptor), sizeof descriptor);
        const auto fields = [&](std::size_t from, std::size_t to) { cover(bytes.substr(from, to - from)); };
        fields(0, offsetof(T_KAVRO_MD, sCorrelId));
        fields(offsetof(T_KAVRO_MD, cMsgStoreType), offsetof(T_KAVRO_MD, cMsgStoreType) + 1);
        fields(offsetof(T_KAVRO_MD, iUsage), offsetof(T_KAVRO_MD, sGroupId) + sizeof descriptor.sGroupId);
        fields(offsetof(T_KAVRO_MD, iPutApplType), offsetof(T_KAVRO_MD, sPutTime) + sizeof descriptor.sPutTime);
    }
};

std::string write_file(const std::filesystem::path& folder, const File& file, Digest& digest) {
    const std::filesystem::path path = folder / file.name;
    std::ofstream out(path, std::ios::binary);
    for (std::size_t done = 0; out && done < file.size; done += kPiece) {
        const std::string piece = bytes_of(file.seed, done, std::min(kPiece, file.size - done));
        digest.add(piece);
        out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    out.close();
    if (!out) {
        throw Error(Errc::kIo, fmt::format("the file {} could not be written: check its folder, and the space there",
                                           path.native()));
    }
    return path.native();
}

void read_file(const std::string& path, Digest& digest) {
    std::error_code missing;
    if (!std::filesystem::is_regular_file(path, missing)) {
        return;
    }
    std::ifstream in(path, std::ios::binary);
    std::string piece(kPiece, '\0');
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
        digest.add(std::string_view(piece).substr(0, static_cast<std::size_t>(in.gcount())));
    }
}

struct Proof {
    std::uint64_t seed;
    std::uint32_t total;
    std::uint32_t number;
    Digest digest;
};

std::optional<Proof> proof_in(const T_KAVRO_MD& descriptor) {
    const std::string check = field_string(descriptor.sCorrelId, sizeof descriptor.sCorrelId);
    const std::string run = field_string(descriptor.sGroupId, sizeof descriptor.sGroupId);
    Proof proof{};
    proof.number = static_cast<std::uint32_t>(descriptor.iMsgSeqNo);
    const bool read =
        std::sscanf(check.c_str(), "CRC32 %8" SCNx32 " %zu", &proof.digest.crc, &proof.digest.size) == 2 &&
        std::sscanf(run.c_str(), "%16" SCNx64 " %" SCNu32, &proof.seed, &proof.total) == 2;
    const bool plausible = field_string(descriptor.sFmtName, sizeof descriptor.sFmtName) == kFormat &&
                           proof.total <= kMaxProofCount && proof.number >= 1 && proof.number <= proof.total;
    return read && plausible ? std::optional(proof) : std::nullopt;
}

/// Whether the message is what its digest says.
bool holds(const Digest& wanted, const T_KAVRO_MD& descriptor, std::string_view data,
           std::span<const std::string> attachments) {
    Digest found;
    found.cover(descriptor);
    for (const std::string& path : attachments) {
        read_file(path, found);
    }
    const bool by_path = descriptor.cMsgStoreType == KVR_STORE_FILE;
    // Generated data may happen to begin like a header.
    if (destination_of(data) && (by_path || found.size + data.size() == wanted.size + kXmitHeaderSize)) {
        data.remove_prefix(kXmitHeaderSize);
    }
    if (by_path) {
        read_file(std::string(data.substr(0, data.find('\0'))), found);
    } else {
        found.add(data);
    }
    return found.size == wanted.size && found.crc == wanted.crc;
}

} // namespace

ProofMessage make_proof(const ProofPlan& plan, std::uint32_t number, const T_KAVRO_MD& descriptor,
                        const std::filesystem::path& folder) {
    ProofMessage message{descriptor, {}, {}, 0};
    T_KAVRO_MD& md = message.descriptor;
    fill_text(md.sFmtName, sizeof md.sFmtName, kFormat);
    fill_text(md.sGroupId, sizeof md.sGroupId, fmt::format("{:016X} {}", plan.seed, plan.count));
    md.iMsgSeqNo = static_cast<int>(number);
    md.cMsgStoreType = plan.kind == ProofKind::kFile ? KVR_STORE_FILE : KVR_STORE_DATA;
    if (plan.kind == ProofKind::kAttached) {
        md.iMsgFlags |= KVR_MSGFLAG_ACCESSORIES;
    }
    Digest digest;
    digest.cover(md);
    for (const File& file : files_of(plan, number)) {
        message.attachments.push_back(write_file(folder, file, digest));
    }
    if (plan.kind == ProofKind::kFile) {
        message.data = message.attachments.front();
        message.attachments.clear();
    } else {
        message.data = bytes_of(seed_of(plan, number, 0), 0, data_size(plan, number));
        digest.add(message.data);
    }
    fill_text(md.sCorrelId, sizeof md.sCorrelId, fmt::format("CRC32 {:08X} {}", digest.crc, digest.size));
    message.size = digest.size;
    return message;
}

std::uint64_t wire_size(const ProofPlan& plan, std::uint32_t number) {
    std::uint64_t size = sizeof(T_KAVRO_CHL_HDR) + sizeof(T_KAVRO_CHL_MD) + data_size(plan, number);
    for (const File& file : files_of(plan, number)) {
        size += KVR_CHL_NUM_LEN + file.size;
        size += plan.kind == ProofKind::kAttached ? sizeof(T_KAVRO_CHL_ACC_HDR) + file.name.size() : 0;
    }
    return size + (plan.kind == ProofKind::kAttached ? KVR_CHL_ACC_TRAILER_LEN : 0);
}

std::uint64_t ProofRun::missing() const {
    const auto present = static_cast<std::uint64_t>(std::count(seen_.begin(), seen_.end(), true));
    return total - std::min<std::uint64_t>(present, total);
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> ProofRun::missing_ranges() const {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
    for (std::uint32_t number = 1; number <= total; ++number) {
        if (!seen(number) && (number == 1 || seen(number - 1))) {
            ranges.emplace_back(number, number);
        } else if (!seen(number)) {
            ranges.back().second = number;
        }
    }
    return ranges;
}

bool ProofCheck::take(const T_KAVRO_MD& descriptor, std::string_view data, std::span<const std::string> attachments) {
    const std::optional<Proof> proof = proof_in(descriptor);
    if (!proof) {
        ++foreign_;
        return false;
    }
    ProofRun& run = runs_[proof->seed];
    run.total = std::max(run.total, proof->total);
    if (run.seen_.size() <= proof->number) {
        run.seen_.resize(std::max<std::size_t>(proof->number + std::size_t{1}, 2 * run.seen_.size()));
    }
    if (!holds(proof->digest, descriptor, data, attachments)) {
        ++run.altered;
        run.seen_[proof->number] = true; // there, not missing
        return false;
    }
    ++run.taken;
    run.bytes += proof->digest.size;
    if (run.seen(proof->number)) {
        ++run.repeated;
    } else if (proof->number < run.last_) {
        ++run.disordered;
    }
    run.seen_[proof->number] = true;
    run.last_ = std::max(run.last_, proof->number);
    return true;
}

ProofRun ProofCheck::run(std::uint64_t seed) const {
    const auto found = runs_.find(seed);
    return found == runs_.end() ? ProofRun() : found->second;
}

bool ProofCheck::good(bool complete) const {
    return foreign_ == 0 && std::all_of(runs_.begin(), runs_.end(), [complete](const auto& entry) {
               const ProofRun& run = entry.second;
               return run.altered == 0 && run.repeated == 0 && run.disordered == 0 && (!complete || run.missing() == 0);
           });
}

} // namespace kvr
