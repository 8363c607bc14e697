// SPDX-License-Identifier: MIT
// Messages that carry a proof of themselves: numbered, with seeded content and a checksum, so that whoever gets them
// can tell what is missing, altered, repeated or out of order. For load, for operators, and for tests.
//
// The proof stands in the descriptor, which travels whole, so that an empty message has one as well:
//   format          "KVRLOAD"
//   correlation id  "CRC32 <8 hexadecimal digits> <bytes>": checksum of the descriptor's other fields, the bytes of the
//                   files and the data after its transmission header (of a file message none); bytes of both
//   group id        "<seed, 16 hexadecimal digits> <messages in the run>"
//   sequence number 1 to the number of messages
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kavro_api.h"

namespace kvr {

constexpr std::uint32_t kMaxProofCount = 100'000'000;
constexpr std::size_t kMaxProofFileName = 28; ///< of a generated file: seed, number and place in the message

enum class ProofKind {
    kData,
    kAttached, ///< data and two attached files
    kFile,     ///< a file message
};

struct SizeRange {
    std::size_t least;
    std::size_t greatest;
};

/// What to make. Plans of one seed are one run: kind and sizes may change from number to number.
struct ProofPlan {
    std::uint64_t seed;
    std::uint32_t count; ///< messages in the run
    ProofKind kind;
    /// The first messages take the sizes at which buffers, segments and fields end, as far as they are within; after
    /// them every order of magnitude comes alike.
    SizeRange data;
    SizeRange file; ///< of each file
};

struct ProofMessage {
    T_KAVRO_MD descriptor;
    std::vector<std::string> attachments; ///< paths
    std::string data;                     ///< without a transmission header; of a file message its path
    std::uint64_t size = 0;               ///< bytes of data and files
};

/// Makes message `number` (1 to count), and its files in `folder`. The same plan always gives the same content.
/// @param descriptor  complete but for the proof: what it says travels along and is proven, too
/// Throws Error(kIo) when a file cannot be written.
ProofMessage make_proof(const ProofPlan& plan, std::uint32_t number, const T_KAVRO_MD& descriptor,
                        const std::filesystem::path& folder = {});
/// What that message takes on the wire: frames, data and files; of a file message without the path of its file.
std::uint64_t wire_size(const ProofPlan& plan, std::uint32_t number);

/// What came of one run.
class ProofRun {
  public:
    std::uint32_t total = 0;
    std::uint64_t taken = 0; ///< with proven content
    std::uint64_t bytes = 0; ///< data and files of these
    std::uint64_t altered = 0;
    std::uint64_t repeated = 0;
    std::uint64_t disordered = 0;

    /// Whether that number was there, be it altered.
    [[nodiscard]] bool seen(std::uint32_t number) const { return number < seen_.size() && seen_[number]; }
    [[nodiscard]] std::uint64_t missing() const;
    /// Numbers that are missing, as ranges from and to.
    [[nodiscard]] std::vector<std::pair<std::uint32_t, std::uint32_t>> missing_ranges() const;

  private:
    friend class ProofCheck;
    std::vector<bool> seen_; ///< by number
    std::uint32_t last_ = 0;
};

/// Checks such messages as they come, from one queue or from several.
class ProofCheck {
  public:
    /// @param data         with or without its transmission header
    /// @param attachments  paths; these files are read, and that of a file message
    /// @return whether the content is what its proof says, be it repeated or out of order
    bool take(const T_KAVRO_MD& descriptor, std::string_view data, std::span<const std::string> attachments);
    /// Nothing altered, repeated, out of order or foreign; with `complete`, nothing missing either.
    [[nodiscard]] bool good(bool complete) const;
    [[nodiscard]] const std::map<std::uint64_t, ProofRun>& runs() const { return runs_; } ///< by seed
    [[nodiscard]] ProofRun run(std::uint64_t seed) const;            ///< an empty one when nothing of it came
    [[nodiscard]] std::uint64_t foreign() const { return foreign_; } ///< messages without a proof

  private:
    std::map<std::uint64_t, ProofRun> runs_;
    std::uint64_t foreign_ = 0;
};

} // namespace kvr
