// SPDX-License-Identifier: MIT
// A storm of line signals and alarms from outside through start, send, wait, connect and stop. While it blows no
// message may be damaged and the channel gets on; afterwards it runs by itself.
#include <chrono>
#include <thread>

#include "history.h"

namespace kvr::test {
namespace {

constexpr std::size_t kRounds = 100;

/// At 1 to 10 kHz, until its end.
std::jthread storm_over(pid_t pid) {
    return std::jthread([pid](const std::stop_token& over) {
        for (int sent = 0; !over.stop_requested(); ++sent) {
            ::kill(pid, sent % 2 == 0 ? SIGUSR2 : SIGALRM);
            std::this_thread::sleep_for(std::chrono::microseconds(1000 - sent % 1000 * 9 / 10));
        }
    });
}

class StormOver : public ::testing::TestWithParam<Carrier> {};

TEST_P(StormOver, AChannelThatStartsSendsWaitsConnectsAndStops) {
    History h(1, GetParam(), true);
    h.stop();
    h.field.set_channel({{"SHORTTMR", "0"}, {"SHORTRTY", "999999999"}, {"HBINT", "1"}});
    h.mark();
    h.worker.emplace(h.field.run_channel());
    h.await_text("log", "starting, plug-in");
    {
        const std::jthread storm = storm_over(h.worker->pid());
        for (std::size_t i = 1; i <= kRounds; ++i) {
            h.put(3, {0, 5'000});
            const auto steps = [&] { return h.since("log", "start recv msg") + h.since("log", "begin connect"); };
            const std::size_t before = steps();
            await("the channel to get on", [&] { return steps() > before; });
            if (i % 20 == 0) {
                h.end_listener();
                h.listen();
            }
        }
    }
    h.rest({.cuts = 3 * kRounds, .dead = 3 * kRounds});
    {
        const std::jthread storm = storm_over(h.worker->pid());
        ::kill(h.worker->pid(), SIGTERM);
        await("the worker's end", [&] { return has_ended(*h.worker); });
    } // before the process id is free for others
    EXPECT_EQ(h.worker->result(), 0);
    EXPECT_EQ(h.field.status(), "STOPED");
    h.run();
    h.finish();
}

INSTANTIATE_TEST_SUITE_P(Carriers, StormOver, ::testing::Values(Carrier::kPlain, Carrier::kTls13));

} // namespace
} // namespace kvr::test
