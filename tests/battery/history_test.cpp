// SPDX-License-Identifier: MIT
// Histories drawn by seeds from the table of faults. Seeds that follow each other deal the table out like cards, over
// plain TCP and TLS by turns, so that twenty meet all of it; the order changes from round to round.
//
// KVR_BATTERY_SEEDS="FIRST COUNT" makes others than the first twenty. The same seed draws the same faults at the same
// places; moments between processes are the system's. What each step did and cost is appended to the file that
// KVR_BATTERY_RESULTS names.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <numeric>

#include <fmt/format.h>

#include "history.h"

namespace kvr::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kSeeds = 20;
constexpr std::size_t kSteps = 5;

bool is_plain(std::uint64_t seed) {
    return seed % 2 == 0;
}

Carrier carrier_of(std::uint64_t seed) {
    return is_plain(seed) ? Carrier::kPlain : seed / 2 % 2 == 0 ? Carrier::kTls13 : Carrier::kTls12;
}

std::vector<Fault> table(bool plain) {
    std::vector<Fault> all;
    for (const auto& part : {faults_of_lines(), faults_of_disks(), faults_of_processes()}) {
        std::ranges::copy_if(part, std::back_inserter(all), [&](const Fault& fault) {
            return fault.carriers == Fault::Carriers::kAny || (fault.carriers == Fault::Carriers::kPlain) == plain;
        });
    }
    return all;
}

/// The order of a round's cards.
std::vector<std::size_t> shuffled(std::size_t size, std::uint64_t round) {
    std::vector<std::size_t> order(size);
    std::iota(order.begin(), order.end(), 0);
    std::uint64_t state = round + 1;
    for (std::size_t i = size; i > 1; --i) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        std::swap(order[i - 1], order[(state >> 33U) % i]);
    }
    return order;
}

std::vector<Fault> drawn_by(std::uint64_t seed) {
    const std::vector<Fault> all = table(is_plain(seed));
    std::vector<Fault> drawn;
    for (std::uint64_t place = seed / 2 * kSteps; drawn.size() < kSteps; ++place) {
        drawn.push_back(all[shuffled(all.size(), place / all.size())[place % all.size()]]);
    }
    return drawn;
}

/// What has happened, for the one who reads a failure.
class Chronicle {
  public:
    void begin(const History& history, const Fault& fault) {
        text_ += fmt::format("  {:6} ms  message {:5}  {}", ms(), history.last() + 1, fault.name);
        unjudged_.push_back(fault);
    }
    void judged(const Cost& cost) {
        text_ += fmt::format("; lost {} in {} cuts, {} bytes at once; {} repeated, {} dead letters\n", cost.messages,
                             cost.cuts, cost.bytes, cost.repeats, cost.dead);
        const char* file = std::getenv("KVR_BATTERY_RESULTS"); // NOLINT(concurrency-mt-unsafe)
        std::ofstream results(file == nullptr ? "/dev/null" : file, std::ios::app);
        for (const Fault& fault : unjudged_) { // what several cost together counts for each that may cost it
            results << fmt::format("{}\t{}\t{}\t{}\t{}\n", fault.name, fault.cost.cuts == 0 ? 0 : cost.messages,
                                   fault.cost.cuts == 0 ? 0 : cost.bytes, fault.cost.repeats == 0 ? 0 : cost.repeats,
                                   fault.cost.dead == 0 ? 0 : cost.dead);
        }
        unjudged_.clear();
    }
    void note(const char* what) { text_ += what; }
    [[nodiscard]] const std::string& text() const { return text_; }

  private:
    [[nodiscard]] long ms() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun_).count();
    }

    Clock::time_point begun_ = Clock::now();
    std::string text_;
    std::vector<Fault> unjudged_;
};

void live_through(History& history, std::uint64_t seed, Chronicle& chronicle) {
    history.rest({});
    Cost allowed;
    for (const Fault& fault : drawn_by(seed)) {
        chronicle.begin(history, fault);
        history.put(20);
        history.meet(fault);
        allowed.cuts += fault.cost.cuts;
        allowed.repeats += fault.cost.repeats;
        allowed.dead += fault.cost.dead;
        allowed.leftovers = allowed.leftovers || fault.cost.leftovers;
        if (history.below(3) == 0 && !::testing::Test::HasFailure()) { // the next one meets what this one left
            chronicle.note("; goes on\n");
            continue;
        }
        chronicle.judged(history.rest(allowed));
        allowed = {};
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
    chronicle.note("the end");
    chronicle.judged(history.rest(allowed));
    history.finish();
}

class Histories : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(Histories, Hold) {
    const std::uint64_t seed = GetParam();
    Chronicle chronicle;
    {
        History history(seed, carrier_of(seed));
        try {
            live_through(history, seed, chronicle);
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
    }
    std::printf("history of seed %lu over %s:\n%s\n", static_cast<unsigned long>(seed), carrier_name(carrier_of(seed)),
                chronicle.text().c_str());
}

std::vector<std::uint64_t> seeds() {
    std::uint64_t first = 0;
    std::uint64_t count = kSeeds;
    if (const char* wanted = std::getenv("KVR_BATTERY_SEEDS")) { // NOLINT(concurrency-mt-unsafe)
        (void)std::sscanf(wanted, "%lu %lu", &first, &count);
    }
    std::vector<std::uint64_t> all(count);
    std::iota(all.begin(), all.end(), first);
    return all;
}

INSTANTIATE_TEST_SUITE_P(Seeds, Histories, ::testing::ValuesIn(seeds()),
                         [](const auto& test) { return std::to_string(test.param); });

TEST(Table, IsMetByTheFirstSeeds) {
    for (const bool plain : {true, false}) {
        EXPECT_LE(table(plain).size(), kSeeds / 2 * kSteps);
    }
}

} // namespace
} // namespace kvr::test
