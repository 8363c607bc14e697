// SPDX-License-Identifier: MIT
// Connections and failed handshakes in numbers: descriptors, children and memory of the worker stay as they were.
#include <algorithm>
#include <thread>

#include "field.h"
#include "wait_marks.h"

namespace kvr::test {
namespace {

constexpr std::uint64_t kMemoryKib = 256;
constexpr std::size_t kWarmUp = 20;
constexpr std::size_t kLooks = 25;
constexpr std::size_t kListeners = 4; ///< that a test of reconnects kills

/// Figures of a process, each the least of all looks: it may be in the middle of a connection at any one.
struct Footprint {
    std::size_t descriptors = SIZE_MAX;
    std::size_t children = SIZE_MAX;   ///< zombies included
    std::uint64_t memory = UINT64_MAX; ///< KiB of its own; mapped pages of the store come and go with the page cache

    explicit Footprint(pid_t pid) {
        for (std::size_t i = 0; i < kLooks; ++i) {
            look(pid);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    void look(pid_t pid) {
        descriptors = std::min(descriptors, descriptors_of(pid));
        children = std::min(children, children_of(pid).size());
        memory = std::min(memory, memory_of(pid, "RssAnon"));
    }
};

Footprint expect_no_growth(pid_t pid, const Footprint& before) {
    Footprint after(pid);
    await("the footprint of before", [&] {
        after.look(pid);
        return after.descriptors <= before.descriptors && after.children <= before.children &&
               after.memory <= before.memory + kMemoryKib;
    });
    ::testing::Test::RecordProperty("KiB before", std::to_string(before.memory));
    ::testing::Test::RecordProperty("KiB after", std::to_string(after.memory));
    ::testing::Test::RecordProperty("descriptors", std::to_string(after.descriptors));
    return after;
}

class Leaks : public ::testing::TestWithParam<Carrier> {
  protected:
    Leaks() : field_(GetParam()) {}

    [[nodiscard]] std::size_t connections() const { return field_.journalled("connect"); }

    /// So many lines, each closed by the listener after some messages while more wait: the worker finds out between two
    /// messages or in one.
    void reconnect(std::size_t count) {
        const std::size_t wanted = connections() + count;
        Child listener = field_.listen({"--close-after", "3000"});
        while (connections() < wanted && !HasFailure()) {
            field_.put(MessageKind::kData, 200, 400, 800);
            await("a short queue", [&] { return field_.depth() < 100 || connections() >= wanted; });
        }
    }

    /// The line up again, the queue drained.
    [[nodiscard]] Child come_to_rest() {
        constexpr std::uint64_t kMessages = 50;
        Child listener = field_.listen();
        field_.await_drained();
        const std::uint64_t before = field_.arrived();
        field_.put(MessageKind::kData, kMessages, 400, 800);
        field_.await_arrived(before + 1);
        field_.await_drained();
        field_.await_status("RUNING");
        return listener;
    }

    Field field_;
};

INSTANTIATE_TEST_SUITE_P(Carriers, Leaks, ::testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         name_of_carrier);

TEST_P(Leaks, ReconnectsLeaveNothingBehind) {
    const std::size_t count = rounds(30);
    {
        Child listener = field_.listen();
        field_.set_channel({{"SHORTRTY", "100000"}});
    }
    Child worker = field_.run_channel(short_pauses()); // a line lost in the get costs one
    reconnect(kWarmUp);
    const Footprint before = [&] {
        const Child listener = come_to_rest();
        return Footprint(worker.pid());
    }();
    reconnect(count);
    const Child listener = come_to_rest();
    const Footprint after = expect_no_growth(worker.pid(), before);
    EXPECT_EQ(after.children, 1U);
    RecordProperty("reconnects", std::to_string(count));
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    const Verdict verdict = field_.judge(connections());
    EXPECT_EQ(verdict.held + verdict.waiting + verdict.repeated, 0U);
    EXPECT_LE(verdict.dead, kListeners) << "only a line that breaks in its bind costs a dead letter";
}

TEST_P(Leaks, FailedHandshakesLeaveNothingBehind) {
    if (GetParam() == Carrier::kPlain) {
        GTEST_SKIP() << "no handshake";
    }
    const auto count = static_cast<int>(rounds(30));
    field_.set_channel({{"SHORTRTY", "10000000"}, {"SHORTTMR", "0"}});
    field_.put_one_of_each();
    Peer peer({.carrier = GetParam(), .identity = tls_material().foreign_server}, [](PeerConnection&) {});
    field_.point_at(peer.port());
    Child worker = field_.run_channel();
    const auto await_failures = [&](int failures) {
        const int wanted = peer.accepted() + failures;
        await("failed handshakes", [&] { return peer.accepted() >= wanted; });
    };
    await_failures(kWarmUp);
    const Footprint before(worker.pid());
    await_failures(count);
    const Footprint after = expect_no_growth(worker.pid(), before);
    EXPECT_EQ(after.children, 0U);
    RecordProperty("failed handshakes", std::to_string(count));
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    const Verdict verdict = field_.judge();
    EXPECT_EQ(verdict.waiting, field_.ledger().size());
}

} // namespace
} // namespace kvr::test
