// SPDX-License-Identifier: MIT
#include "proof_report.h"

#include <fmt/format.h>

namespace kvr {
namespace {

/// More say no more.
constexpr std::size_t kShownRanges = 5;

std::string missing_text(const ProofRun& run) {
    std::string numbers;
    std::size_t shown = 0;
    for (const auto& [from, to] : run.missing_ranges()) {
        if (++shown > kShownRanges) {
            numbers += ", ...";
            break;
        }
        numbers += fmt::format("{}{}", numbers.empty() ? "" : ", ", from);
        numbers += from == to ? std::string() : fmt::format("-{}", to);
    }
    return fmt::format(", {} missing{}", run.missing(), numbers.empty() ? "" : fmt::format(" (numbers {})", numbers));
}

} // namespace

std::string proof_text(const ProofCheck& check, bool complete) {
    std::string out;
    for (const auto& [seed, run] : check.runs()) {
        out += fmt::format("run {:016X}: {} taken of {}, {} altered, {} repeated, {} out of order{}\n", seed, run.taken,
                           run.total, run.altered, run.repeated, run.disordered, complete ? missing_text(run) : "");
    }
    if (check.foreign() > 0) {
        out += fmt::format("{} without a proof\n", message_count(check.foreign()));
    }
    return out.empty() ? "no messages" : out.substr(0, out.size() - 1);
}

Json proof_json(const ProofCheck& check, bool complete) {
    Json runs = Json::array();
    for (const auto& [seed, run] : check.runs()) {
        Json entry{{"run", fmt::format("{:016X}", seed)},
                   {"total", run.total},
                   {"taken", run.taken},
                   {"bytes", run.bytes},
                   {"altered", run.altered},
                   {"repeated", run.repeated},
                   {"out_of_order", run.disordered}};
        if (complete) {
            entry["missing"] = run.missing();
            entry["missing_numbers"] = run.missing_ranges();
        }
        runs.push_back(std::move(entry));
    }
    return {{"good", check.good(complete)}, {"runs", runs}, {"foreign", check.foreign()}};
}

} // namespace kvr
