// SPDX-License-Identifier: MIT
// The receiver ends the connection after every byte of a bind frame, a plain message, one with two attached files and a
// file message. What was received before the cut is there; of the rest each message is there whole, or lost.
//
// One worker meets all cuts. Lines are bad and good in turn: a bad one is cut after so many bytes, the good one behind
// it is given up by the test once it is idle, which must cost nothing.
#include <algorithm>

#include "history.h"

namespace kvr::test {

class Cuts : public ::testing::TestWithParam<std::tuple<Carrier, bool>> {
  protected:
    /// Three messages for a bad line; the bytes on it at the end of each.
    std::vector<std::uint64_t> put_one_of_each() {
        std::vector<std::uint64_t> ends;
        std::uint64_t end = 75 + sizeof(kChannel) - 1; // the bind frame
        for (const ProofKind kind : {ProofKind::kData, ProofKind::kAttached, ProofKind::kFile}) {
            h_.put(1, {100, 100}, kind);
            end += h_.wire_size_of(h_.last()) + (kind == ProofKind::kFile ? h_.last_files().at(0).size() : 0);
            ends.push_back(end);
        }
        return ends;
    }
    void await_connections(std::size_t count) { h_.await_text("journal", "\"event\":\"connect\"", count); }

    History h_{1, std::get<Carrier>(GetParam())};
};

TEST_P(Cuts, AfterEachByteCostNoMoreThanWhatWasOnTheWay) {
    h_.stop_at_rest();
    h_.field.set_channel({{"TRIALTMR", "0"}});
    h_.run();
    const std::uint64_t whole = put_one_of_each().back();
    const bool quick = std::getenv("KVR_BATTERY_ROUNDS") == nullptr; // NOLINT(concurrency-mt-unsafe)
    const std::uint64_t step = quick ? whole / 30 : 1;
    h_.relisten(
        {std::get<bool>(GetParam()) ? "--reset-after" : "--close-after", "1", "--awkward-step", std::to_string(step)});
    std::size_t cuts = 0;
    for (std::uint64_t at = 1; at <= whole && !HasFailure(); at += step) {
        await_connections(2 * cuts + 1);
        const std::vector<std::uint64_t> ends = put_one_of_each();
        ++cuts;
        await_connections(2 * cuts);
        EXPECT_LE(h_.rest({.cuts = 1}).messages,
                  static_cast<std::size_t>(std::ranges::count_if(ends, [&](auto end) { return end > at; })))
            << "cut after byte " << at << " of " << whole;
        ::kill(h_.worker->pid(), SIGUSR2);
    }
    EXPECT_EQ(h_.since("out", "on purpose after"), cuts);
    RecordProperty("cuts", std::to_string(cuts));
}

INSTANTIATE_TEST_SUITE_P(Ends, Cuts,
                         ::testing::Combine(::testing::Values(Carrier::kPlain, Carrier::kTls13), ::testing::Bool()));

} // namespace kvr::test
