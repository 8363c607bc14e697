// SPDX-License-Identifier: MIT
// A channel that keeps what it sent and repeats what can be lost, to a listener that takes each message once, under
// load: its line is cut, listener and worker are killed, the peer accepts and closes. Nothing is lost and nothing comes
// twice; order goes back once for each line that broke, at most.
//
// The same roads without these settings say what they are for: they lose and repeat. KVR_BATTERY_ROUNDS makes so many
// rounds on all roads, each of five cuts and a kill of either end.
#include <algorithm>

#include <fmt/format.h>

#include "history.h"

namespace kvr::test {

constexpr std::size_t kMany = 1U << 30U;

enum class Promise { kOff, kRepeat, kOnce };
using Road = std::tuple<Promise, unsigned>; ///< its bits: TLS, a slow receiver, all of a line can be gone

static const char* rounds_wanted() {
    return std::getenv("KVR_BATTERY_ROUNDS"); // NOLINT(concurrency-mt-unsafe)
}

static Terms terms(const Road& road, Relay& relay) {
    const auto [promise, bits] = road;
    const bool slow = (bits & 2U) != 0; // and all that can be under way to it is less than by default
    Terms all{{}, {}, &relay};
    if (slow) {
        all.listener = {"--read-rate", "10000000", "--receive-buffer", "65536"};
    }
    if (promise != Promise::kOff) {
        all.channel = {
            {"KEEPINT", "600"}, {"REPEAT", "LOSS"}, {"TRIALTMR", "1"}, {"LOSSINT", (bits & 4U) != 0 ? "0" : "60"}};
    }
    if (promise == Promise::kOnce) {
        all.listener.emplace_back("--take-once");
    }
    return all;
}

class Kept : public ::testing::TestWithParam<Road> {
  public:
    void load_until(const std::function<bool()>& done) {
        await("an attack under load", [&] {
            h_.revive();
            if (h_.field.depth() < 100) {
                h_.put(40, {0, 16'384});
                h_.put(h_.below(4) == 0 ? 1 : 0, {1'048'576, 1'048'576}, ProofKind::kData);
            }
            return done();
        });
    }
    void load_a_while() {
        const std::size_t before = h_.field.arrived();
        load_until([&] { return h_.field.arrived() > before + 20; });
        h_.pause_up_to(20'000);
    }

    void cut() {
        const std::size_t before = relay_.cuts();
        relay_.cut(1, h_.below(4) == 0 ? 3'000 : 1'000'000);
        load_until([&] { return relay_.cuts() > before; });
    }
    void kill_listener() {
        load_a_while();
        h_.kill(h_.listener);
        h_.pause_up_to(50'000);
        h_.listen(terms_.listener);
    }
    void kill_worker() {
        load_a_while();
        h_.worker.reset();
        await("the end of the watcher", [&] { return processes_with((h_.field.home() / "log").native()).empty(); });
        h_.run();
    }

    void judge() {
        h_.settle(); // the line that follows a broken one is there
        const std::size_t lines = relay_.lines() - std::exchange(lines_, relay_.lines());
        const bool leftovers = made_.contains("listener killed");
        const Cost cost = h_.rest(promise_ == Promise::kOnce     ? Cost{.leftovers = leftovers, .turns = lines}
                                  : promise_ == Promise::kRepeat ? Cost{0, kMany, 0, leftovers, kMany}
                                                                 : Cost{kMany, kMany, kMany, leftovers, kMany});
        fmt::print("lost {}, {} bytes at once; {} repeated, {} dead letters, {} turns\n", cost.messages, cost.bytes,
                   cost.repeats, cost.dead, cost.turns);
        lost_ += cost.messages;
        repeated_ += cost.repeats;
    }
    void attack(const char* name, void (Kept::*make)()) {
        fmt::print("  message {:6}  {}; ", h_.last() + 1, name);
        ++made_[name];
        (this->*make)();
        h_.below(4) == 0 ? fmt::print("goes on\n") : judge(); // the next one may meet what this one left
    }
    void end() {
        judge();
        h_.finish();
    }

    const Promise promise_ = std::get<Promise>(GetParam());
    const unsigned bits_ = std::get<unsigned>(GetParam());
    Relay relay_{bits_};
    const Terms terms_ = terms(GetParam(), relay_);
    History h_{bits_, (bits_ & 1U) != 0 ? Carrier::kTls13 : Carrier::kPlain, terms_};
    std::size_t lines_ = 0;
    std::size_t lost_ = 0;
    std::size_t repeated_ = 0;
    std::map<std::string, std::size_t> made_;
};

TEST_P(Kept, CutsAndKills) {
    std::vector<std::pair<const char*, void (Kept::*)()>> round(5, {"cut", &Kept::cut});
    round.insert(round.end(), {{"listener killed", &Kept::kill_listener}, {"worker killed", &Kept::kill_worker}});
    judge();
    for (int rounds = rounds_wanted() == nullptr ? 1 : std::stoi(rounds_wanted()); rounds > 0; --rounds) {
        std::ranges::shuffle(round, std::mt19937_64(h_.below(kMany)));
        for (const auto& [name, make] : round) {
            attack(name, make);
            ASSERT_FALSE(HasFailure());
        }
    }
    end();
    if (rounds_wanted() != nullptr) { // or the attacks prove nothing
        EXPECT_TRUE(lost_ > 0 || promise_ != Promise::kOff);
        EXPECT_TRUE(repeated_ > 0 || promise_ != Promise::kRepeat);
    }
}

/// For five lines or a minute; cuts alone follow, which leave no files.
TEST_P(Kept, PeerThatAcceptsAndCloses) {
    judge();
    const auto minute = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    const std::size_t five = relay_.lines() + 5;
    fmt::print("  accepts and closes; ");
    relay_.cut(kMany, 0);
    while (rounds_wanted() == nullptr ? relay_.lines() < five : std::chrono::steady_clock::now() < minute) {
        load_until([lines = relay_.lines(), this] { return relay_.lines() > lines; });
    }
    relay_.cut(0, 0);
    judge();
    for (int cuts = 0; cuts < 3 && !HasFailure(); ++cuts) {
        attack("cut", &Kept::cut);
    }
    end();
}

static std::vector<Road> roads() {
    if (rounds_wanted() == nullptr) {
        return {{Promise::kRepeat, 0}, {Promise::kOnce, 0}, {Promise::kOnce, 3}};
    }
    std::vector<Road> all;
    for (unsigned number = 0; number < 24; ++number) {
        all.emplace_back(static_cast<Promise>(number / 8), number % 8);
    }
    return all;
}

static std::string name_of(const ::testing::TestParamInfo<Road>& road) {
    constexpr const char* kNames[] = {"Off", "Repeat", "Once"};
    return kNames[static_cast<int>(std::get<Promise>(road.param))] + std::to_string(std::get<unsigned>(road.param));
}

INSTANTIATE_TEST_SUITE_P(Roads, Kept, ::testing::ValuesIn(roads()), name_of);

} // namespace kvr::test
