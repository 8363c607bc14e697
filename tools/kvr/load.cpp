// SPDX-License-Identifier: MIT
#include "load.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

#include "descriptor.h"
#include "xmit_header.h"

namespace kvr {
namespace {

constexpr std::string_view kLoadFormat = "KVRLOAD";

constexpr std::array<std::uint32_t, 256> kCrcTable = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
        }
        table.at(i) = value;
    }
    return table;
}();

/// A generator of evenly spread 64-bit numbers (the splitmix sequence): one multiplication chain for each number.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15ULL;
        std::uint64_t value = state_;
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EBULL;
        return value ^ (value >> 31);
    }

  private:
    std::uint64_t state_;
};

struct Proof {
    std::uint64_t seed;
    std::uint32_t total;
    std::uint32_t number;
    std::uint32_t crc;
    std::size_t size;
};

bool read_proof(const T_KAVRO_MD& descriptor, Proof& proof) {
    if (field_string(descriptor.sFmtName, sizeof descriptor.sFmtName) != kLoadFormat || descriptor.iMsgSeqNo < 1) {
        return false;
    }
    const std::string check = field_string(descriptor.sCorrelId, sizeof descriptor.sCorrelId);
    const std::string run = field_string(descriptor.sGroupId, sizeof descriptor.sGroupId);
    proof.number = static_cast<std::uint32_t>(descriptor.iMsgSeqNo);
    return std::sscanf(check.c_str(), "CRC32 %8" SCNx32 " %zu", &proof.crc, &proof.size) == 2 &&
           std::sscanf(run.c_str(), "%16" SCNx64 " %" SCNu32, &proof.seed, &proof.total) == 2 &&
           proof.total <= kMaxLoadCount && proof.number <= proof.total;
}

} // namespace

std::uint32_t crc32(std::string_view bytes) {
    std::uint32_t value = 0xFFFFFFFFU;
    for (const char c : bytes) {
        value = (value >> 8) ^ kCrcTable[(value ^ static_cast<unsigned char>(c)) & 0xFFU];
    }
    return value ^ 0xFFFFFFFFU;
}

void make_load_message(const LoadPlan& plan, std::uint32_t number, T_KAVRO_MD& descriptor, std::string& data) {
    Random random(plan.seed ^ Random(number).next());
    data.resize(plan.min_size + random.next() % (plan.max_size - plan.min_size + 1));
    for (std::size_t at = 0; at < data.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t value = random.next();
        std::memcpy(data.data() + at, &value, std::min(sizeof value, data.size() - at));
    }
    fill_text(descriptor.sFmtName, sizeof descriptor.sFmtName, kLoadFormat);
    fill_text(descriptor.sCorrelId, sizeof descriptor.sCorrelId,
              fmt::format("CRC32 {:08X} {}", crc32(data), data.size()));
    fill_text(descriptor.sGroupId, sizeof descriptor.sGroupId, fmt::format("{:016X} {}", plan.seed, plan.count));
    descriptor.iMsgSeqNo = static_cast<int>(number);
}

bool LoadCheck::take(const T_KAVRO_MD& descriptor, std::string_view data) {
    Proof proof{};
    if (!read_proof(descriptor, proof)) {
        ++foreign_;
        return false;
    }
    if (data.size() == proof.size + kXmitHeaderSize && destination_of(data)) {
        data.remove_prefix(kXmitHeaderSize);
    }
    Run& run = runs_[proof.seed];
    run.total = std::max(run.total, proof.total);
    if (run.seen.size() <= proof.number) {
        run.seen.resize(std::max<std::size_t>(proof.number + std::size_t{1}, 2 * run.seen.size()));
    }
    if (data.size() != proof.size || crc32(data) != proof.crc) {
        ++run.altered;
        run.seen[proof.number] = true; // there, not missing
        return false;
    }
    ++run.taken;
    if (run.seen[proof.number]) {
        ++run.repeated;
    } else if (proof.number < run.last) {
        ++run.disordered;
    }
    run.seen[proof.number] = true;
    run.last = std::max(run.last, proof.number);
    return true;
}

std::uint64_t LoadCheck::Run::missing() const {
    const auto present = static_cast<std::uint64_t>(std::count(seen.begin(), seen.end(), true));
    return total - std::min<std::uint64_t>(present, total);
}

std::uint32_t LoadCheck::Run::first_missing() const {
    const auto at = std::find(seen.begin() + 1, seen.end(), false);
    return static_cast<std::uint32_t>(at - seen.begin());
}

bool LoadCheck::good(bool complete) const {
    return foreign_ == 0 && std::all_of(runs_.begin(), runs_.end(), [complete](const auto& entry) {
               const Run& run = entry.second;
               return run.altered == 0 && run.repeated == 0 && run.disordered == 0 && (!complete || run.missing() == 0);
           });
}

std::string LoadCheck::text(bool complete) const {
    std::string out;
    for (const auto& [seed, run] : runs_) {
        out += fmt::format("run {:016X}: {} taken of {}, {} altered, {} repeated, {} out of order", seed, run.taken,
                           run.total, run.altered, run.repeated, run.disordered);
        if (complete) {
            out += fmt::format(", {} missing", run.missing());
            if (run.missing() > 0) {
                out += fmt::format(" (the first is number {})", run.first_missing());
            }
        }
        out += "\n";
    }
    if (foreign_ > 0) {
        out += fmt::format("{} without a proof\n", message_count(foreign_));
    }
    return out.empty() ? "no messages" : out.substr(0, out.size() - 1);
}

Json LoadCheck::json(bool complete) const {
    Json runs = Json::array();
    for (const auto& [seed, run] : runs_) {
        Json entry{{"run", fmt::format("{:016X}", seed)},
                   {"total", run.total},
                   {"taken", run.taken},
                   {"altered", run.altered},
                   {"repeated", run.repeated},
                   {"out_of_order", run.disordered}};
        if (complete) {
            entry["missing"] = run.missing();
        }
        runs.push_back(std::move(entry));
    }
    return {{"good", good(complete)}, {"runs", runs}, {"foreign", foreign_}};
}

} // namespace kvr
