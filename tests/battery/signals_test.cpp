// SPDX-License-Identifier: MIT
// The line-loss signal and the alarm at every call of a message's road: before it, after it, and in place of it where a
// signal can end it. One worker lives through them all: each message meets its signal one call later than the one
// before.
#include "injector.h"

namespace kvr::test {
namespace {

using inject::Action;
using inject::Attack;
using inject::Trigger;

struct Wave {
    const char* name;
    Trigger trigger;
    Action action;
    int signal;
};

constexpr Wave kWaves[] = {
    {"line signal before", Trigger::kMessage, Action::kBefore, SIGUSR2},
    {"line signal after", Trigger::kMessage, Action::kAfter, SIGUSR2},
    {"line signal in place of", Trigger::kMessage, Action::kInterrupt, SIGUSR2},
    {"alarm before", Trigger::kMessage, Action::kBefore, SIGALRM},
    {"alarm after", Trigger::kMessage, Action::kAfter, SIGALRM},
    {"alarm in place of", Trigger::kMessage, Action::kInterrupt, SIGALRM},
    {"line signal in the heartbeat before", Trigger::kHandler, Action::kBefore, SIGUSR2},
    {"line signal in the heartbeat after", Trigger::kHandler, Action::kAfter, SIGUSR2},
    {"line signal in the heartbeat in place of", Trigger::kHandler, Action::kInterrupt, SIGUSR2},
};

/// How thorough: every host operation and TLS call in any case, of the system calls every one or a sample.
struct Depth {
    MessageKind kind;
    int system_step;
};

class SignalsAt : public ::testing::TestWithParam<Carrier> {
  protected:
    void strike(const Depth& depth);

  private:
    int wave(Field& field, Injector& injector, const Child& worker, const Wave& wave, int kinds, int step,
             MessageKind kind);
};

/// One message for each call; ends when a message's road has fewer calls. The number of calls struck. The message
/// before has arrived by then: what a cut connection may cost is another attack's business.
int SignalsAt::wave(Field& field, Injector& injector, const Child& worker, const Wave& wave, int kinds, int step,
                    MessageKind kind) {
    int struck = 0;
    for (int target = 1;; target = injector.control().fired + step) {
        injector.arm({wave.trigger, wave.action, kinds, target, wave.signal, 0});
        if (wave.trigger == Trigger::kHandler) {
            ::kill(worker.pid(), SIGALRM);
        } else {
            field.put(kind, 1, 100, 5000);
        }
        const std::string what = std::string(wave.name) + " call " + std::to_string(target);
        if (!injector.done(worker, what)) {
            ADD_FAILURE() << "the worker ended after " << what << " " << injector.control().name;
            return struck;
        }
        injector.expect_no_finding();
        if (HasFailure()) {
            return struck;
        }
        field.await_arrived(field.ledger().size());
        if (injector.control().fired == 0 || HasFailure()) {
            return struck;
        }
        ++struck;
    }
}

void SignalsAt::strike(const Depth& depth) {
    Field field(GetParam());
    field.set_channel({{"SHORTTMR", "0"}});
    Child listener = field.listen();
    Injector injector(field);
    Child worker = field.run_channel(injector.environment());
    field.await_status("RUNING");
    int struck = 0;
    for (const Wave& each : kWaves) {
        struck += wave(field, injector, worker, each, inject::kHost | inject::kTls, 1, depth.kind);
        struck += wave(field, injector, worker, each, inject::kSystem, depth.system_step, depth.kind);
        if (HasFailure()) {
            return;
        }
    }
    injector.disarm();
    field.put_one_of_each();
    field.await_all();
    EXPECT_EQ(field.status(), "RUNING");
    EXPECT_EQ(children_of(worker.pid()).size(), 1U);
    field.finish(worker);
    injector.expect_no_finding();
    RecordProperty("signals at calls", struck);
    RecordProperty("handlers run", injector.control().handled);
    RecordProperty("decoys opened", injector.control().decoys);
}

TEST_P(SignalsAt, EveryCall) {
    // The thorough form takes minutes: a file frame of 30 pieces has many calls.
    strike(rounds(0) == 0 ? Depth{MessageKind::kFile, 5} : Depth{MessageKind::kAttached, 1});
}

INSTANTIATE_TEST_SUITE_P(Carriers, SignalsAt, kPlainAndTls, name_of_carrier);

} // namespace
} // namespace kvr::test
