// SPDX-License-Identifier: MIT
// Histories drawn by seeds from the table of faults. Seeds that follow each other deal the table out like cards, over
// plain TCP and TLS by turns, so that twenty meet all of it; the order changes from round to round.
//
// KVR_BATTERY_SEEDS="FIRST COUNT" makes others than the first twenty. The same seed draws the same faults at the same
// places; moments between processes are the system's.
#include <algorithm>

#include <fmt/format.h>

#include "history.h"

namespace kvr::test {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kSteps = 5; ///< so that twenty seeds meet a table of up to 50 rows

static bool is_plain(std::uint64_t seed) {
    return seed % 2 == 0;
}

static Carrier carrier_of(std::uint64_t seed) {
    return is_plain(seed) ? Carrier::kPlain : seed / 2 % 2 == 0 ? Carrier::kTls13 : Carrier::kTls12;
}

static std::vector<Fault> table(bool plain) {
    std::vector<Fault> all;
    for (const auto& part : {faults_of_lines(), faults_of_disks(), faults_of_processes()}) {
        std::ranges::copy_if(part, std::back_inserter(all), [&](const Fault& fault) {
            return fault.carriers == Fault::Carriers::kAny || (fault.carriers == Fault::Carriers::kPlain) == plain;
        });
    }
    return all;
}

static std::vector<Fault> drawn_by(std::uint64_t seed) {
    std::vector<Fault> drawn;
    for (std::uint64_t place = seed / 2 * kSteps; drawn.size() < kSteps; ++place) {
        std::vector<Fault> cards = table(is_plain(seed));
        std::ranges::shuffle(cards, std::mt19937_64(place / cards.size())); // by the round
        drawn.push_back(cards[place % cards.size()]);
    }
    return drawn;
}

/// What is printed is for the one who reads a failure, and for the table of scripts/battery.
static void live_through(History& history, std::uint64_t seed) {
    const auto begin = Clock::now();
    Cost allowed;
    const auto judge = [&] {
        const Cost cost = history.rest(std::exchange(allowed, {}));
        fmt::print("lost {} in {} cuts, {} bytes at once; {} repeated, {} dead letters\n", cost.messages, cost.cuts,
                   cost.bytes, cost.repeats, cost.dead);
    };
    judge();
    for (const Fault& fault : drawn_by(seed)) {
        fmt::print("  {:6} ms  message {:5}  {}; ",
                   std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count(),
                   history.last() + 1, fault.name);
        allowed += fault.cost;
        history.put(20);
        history.meet(fault);
        if (history.below(3) == 0) { // the next one meets what this one left
            fmt::print("goes on\n");
        } else {
            judge();
        }
        ASSERT_FALSE(::testing::Test::HasFailure());
    }
    judge();
    history.finish();
}

class Histories : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(Histories, Hold) {
    const std::uint64_t seed = GetParam();
    fmt::print("history of seed {} over {}: ", seed, carrier_name(carrier_of(seed)));
    History history(seed, carrier_of(seed));
    try {
        live_through(history, seed);
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
}

static auto seeds() {
    const char* wanted = std::getenv("KVR_BATTERY_SEEDS"); // NOLINT(concurrency-mt-unsafe)
    std::istringstream range(wanted == nullptr ? "0 20" : wanted);
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    range >> first >> count;
    return ::testing::Range(first, first + count);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Histories, seeds(), [](const auto& test) { return std::to_string(test.param); });

} // namespace kvr::test
