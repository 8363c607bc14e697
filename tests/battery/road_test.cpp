// SPDX-License-Identifier: MIT
// The field itself at peace: what every attack starts from and must come back to.
#include "field.h"

namespace kvr::test {
namespace {

class Road : public ::testing::TestWithParam<Carrier> {};

INSTANTIATE_TEST_SUITE_P(Carriers, Road, ::testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& tested) { return std::string(carrier_name(tested.param)); });

TEST_P(Road, EveryKindOfMessageArrivesAndAStopLeavesATruthfulStatus) {
    Field field(GetParam());
    Child listener = field.listen();
    Child worker = field.run_channel();
    field.await_status("RUNING");
    EXPECT_EQ(field.status("PID"), std::to_string(worker.pid()));
    field.put_one_of_each();
    field.put(MessageKind::kData, 200, 0, 100000);
    field.put(MessageKind::kData, 1, kMaxMessage - 72, kMaxMessage - 72);
    field.await_arrived(field.ledger().size());
    field.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(field.status(), "STOPED");
    EXPECT_EQ(field.status("PID"), "-1");
    field.expect_all_delivered();
}

TEST_P(Road, AKilledListenerCostsNothingThatHadArrived) {
    Field field(GetParam());
    Child worker = [&] {
        Child listener = field.listen();
        Child started = field.run_channel();
        field.put(MessageKind::kData, 50, 0, 5000);
        field.await_arrived(50);
        return started;
    }();
    field.await_log("line disconnected [0]");
    field.put(MessageKind::kData, 50, 0, 5000);
    Child listener = field.listen();
    field.await_arrived(100);
    field.await_status("RUNING");
    EXPECT_EQ(children_of(worker.pid()).size(), 1U);
    field.expect_all_delivered();
}

TEST_P(Road, AStopRightAfterTheLastSendLosesNothingThoughTicketsComeLate) {
    Field field(GetParam());
    std::vector<std::string> options{"--read-rate", "2000000"};
    if (GetParam() == Carrier::kTls13) {
        options.insert(options.end(), {"--tls-late-ticket", "100"});
    }
    Child listener = field.listen(options);
    field.put_one_of_each();
    Child worker = field.run_channel();
    field.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    field.await_arrived(field.ledger().size());
    field.expect_all_delivered();
}

} // namespace
} // namespace kvr::test
