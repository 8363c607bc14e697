// SPDX-License-Identifier: MIT
// One SIGTERM at the calls of a message's road: the worker ends as stopped, the message in hand is back, and one that
// was sent is not repeated.
#include "field.h"
#include "injector.h"

namespace kvr::test {
namespace {

/// Ends the line behind the back of its watcher: the channel finds out with its next message.
void lose_unnoticed(const Child& worker, std::optional<Child>& listener) {
    for (const pid_t watcher : children_of(worker.pid())) {
        ::kill(watcher, SIGSTOP); // the channel kills it all the same
    }
    listener.reset();
}

class StopsAt : public ::testing::TestWithParam<Carrier> {};

INSTANTIATE_TEST_SUITE_P(Carriers, StopsAt, kPlainAndTls, name_of_carrier);

// The road begins with a new line: nothing but the stop makes the message fail, and nothing keeps one that failed.
TEST_P(StopsAt, EachCallOfAMessageOnANewLine) {
    Field field(GetParam());
    field.set_qmgr({{"DEADQ", ""}});
    field.set_channel({{"SHORTRTY", "0"}, {"SHORTTMR", "0"}});
    Injector injector(field);
    std::optional<Child> listener(field.listen());
    int stops = 0;
    for (const inject::Action action : {inject::Action::kInterrupt, inject::Action::kBefore}) {
        const int kinds = action == inject::Action::kBefore && rounds(0) == 0 ? inject::kHost : inject::kAnyKind;
        for (int target = 1; !HasFailure(); target = injector.control().fired + 1) {
            Child worker = field.run_channel(injector.environment());
            field.await_status("RUNING");
            field.await_drained();
            field.await_arrived(field.ledger().size());
            lose_unnoticed(worker, listener);
            listener.emplace(field.listen());
            injector.arm({inject::Trigger::kMessage, action, kinds, target, SIGTERM, 0});
            field.put(MessageKind::kFile, 1, 1000, 1000);
            (void)injector.done(worker, "a stop");
            const int fired = injector.control().fired;
            SCOPED_TRACE("call " + std::to_string(fired) + " " + injector.control().name);
            EXPECT_EQ(worker.result_under(SIGTERM), 0);
            EXPECT_EQ(field.status(), "STOPED");
            stops += fired > 0 ? 1 : 0;
            if (fired == 0) {
                break;
            }
        }
    }
    RecordProperty("stops at calls", stops);
    Child worker = field.run_channel();
    field.await_status("RUNING");
    field.finish(worker);
}

} // namespace
} // namespace kvr::test
