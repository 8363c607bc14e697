// SPDX-License-Identifier: MIT
// Receivers that take hardly anything: with a send time-out the write fails and the message goes over a new line,
// without one it waits. The worker's memory stays as it is in both. A receiver that is slow but goes on is waited for.
#include <cstdio>
#include <optional>

#include "field.h"
#include "log_tail.h"

namespace kvr::test {
namespace {

constexpr std::uint64_t kGrowthKib = 4096; ///< the receive buffer of the channel, touched by the first great message
constexpr long kBoundMs = 5000;            ///< for a send time-out of one second

struct Case {
    const char* name;
    Carrier carrier;
    std::vector<std::string> options;
};

/// Milliseconds of the day at the head of a log line.
long time_of(const std::string& line) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    int milli = 0;
    EXPECT_EQ(std::sscanf(line.c_str(), "%*d-%*d-%*dT%d:%d:%d.%d", &hour, &minute, &second, &milli), 4);
    return ((hour * 60L + minute) * 60 + second) * 1000 + milli;
}

class SlowPeers : public ::testing::TestWithParam<Case> {
  protected:
    SlowPeers() : field_(GetParam().carrier) {}

    std::vector<std::string> options() {
        std::vector<std::string> all{"--receive-buffer", "4096", "--awkward-first", "1"};
        all.insert(all.end(), GetParam().options.begin(), GetParam().options.end());
        return all;
    }

    void expect_flat(const Child& worker, std::uint64_t before) {
        EXPECT_LE(memory_of(worker.pid(), "RssAnon"), before + kGrowthKib);
        RecordProperty("peak KiB", std::to_string(memory_of(worker.pid(), "VmHWM")));
    }

    void expect_rest_delivered() {
        field_.await_drained();
        field_.put(MessageKind::kData, 1, 10, 10);
        field_.await_drained();
        await("the last message", [&] {
            std::uint64_t last = 0;
            field_.receiver().browse(kTarget, 0, [&](const StoredMessage& found) {
                last = number_of(kTag, found.descriptor).value_or(0);
                return true;
            });
            return last == field_.ledger().size();
        });
        const Verdict verdict = field_.judge(1);
        EXPECT_EQ(verdict.dead + verdict.held + verdict.waiting, 0U);
        RecordProperty("bytes lost", std::to_string(verdict.lost_bytes));
    }

    Field field_;
};

TEST_P(SlowPeers, EndAWriteByTheSendTimeOut) {
    const Child listener = field_.listen(options());
    LogTail tail(field_.home() / "log");
    const Child worker = field_.run_channel();
    field_.await_status("RUNING");
    const std::uint64_t before = memory_of(worker.pid(), "RssAnon");
    field_.put_too_much();
    field_.await_log("error[-201]");
    expect_flat(worker, before);

    long begun = 0;
    long took = -1;
    tail.each_new_line([&](const std::string& line) {
        if (line.find("start write chl hdr") != std::string::npos) {
            begun = time_of(line);
        } else if (took < 0 && line.find("error[-201]") != std::string::npos) {
            took = time_of(line) - begun;
        }
    });
    constexpr long kDayMs = 86'400'000;
    took = (took + kDayMs) % kDayMs;
    EXPECT_LE(took, kBoundMs);
    RecordProperty("ms to the failure, time-out 1000", std::to_string(took));
    expect_rest_delivered();
}

TEST_P(SlowPeers, HoldAWriteForEverWithoutASendTimeOut) {
    field_.set_channel({{"SHORTTMR", "0"}});
    std::optional<Child> listener(field_.listen(options()));
    const Child worker = field_.run_channel();
    field_.await_status("RUNING");
    const std::uint64_t before = memory_of(worker.pid(), "RssAnon");
    field_.put_too_much();
    // Standing still is seen in that nothing changes over many looks.
    std::uint64_t depth = 0;
    int same = 0;
    await("a write that stands still", [&] {
        const std::uint64_t now = field_.depth();
        same = now == depth ? same + 1 : 0;
        depth = now;
        return same > 500;
    });
    EXPECT_GT(depth, 0U);
    EXPECT_EQ(field_.logged("error[-201]"), 0U);
    expect_flat(worker, before);
    field_.set_channel({{"SHORTTMR", "1"}});
    listener.reset();
    listener.emplace(field_.listen());
    expect_rest_delivered();
}

std::vector<Case> cases() {
    std::vector<Case> all;
    for (const Carrier carrier : {Carrier::kPlain, Carrier::kTls13}) {
        all.push_back({"ZeroWindow", carrier, {"--stall-after", "100000"}});
        all.push_back({"AByteASecond", carrier, {"--read-rate", "1"}});
        all.push_back({"AcceptWithoutRead", carrier, {"--stall-after", "0"}});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Readers, SlowPeers, ::testing::ValuesIn(cases()), [](const auto& test) {
    return std::string(carrier_name(test.param.carrier)) + test.param.name;
});

using SlowLine = ::testing::TestWithParam<Carrier>;
INSTANTIATE_TEST_SUITE_P(Carriers, SlowLine, kPlainAndTls, name_of_carrier);

/// More than the buffers hold, message and file: a write that takes longer than the send time-out is no failure.
TEST_P(SlowLine, ThatMovesIsNotTakenForALostOne) {
    constexpr std::size_t kGreatest = kMaxMessage - sizeof(T_KAVRO_HDR_XMITQ);
    constexpr std::size_t kFile = 1'500'000;
    Field field(GetParam());
    field.set_channel({{"SHORTTMR", "5"}});
    const Child listener = field.listen({"--read-rate", "200000"});
    Child worker = field.run_channel();
    field.await_status("RUNING");
    field.put(MessageKind::kData, 3, kGreatest, kGreatest);
    field.put(MessageKind::kFile, 1, kFile, kFile);
    field.finish(worker);
    EXPECT_EQ(field.logged("error[-201]"), 0U);
    EXPECT_EQ(field.journalled("connect"), 1U);
}

} // namespace
} // namespace kvr::test
