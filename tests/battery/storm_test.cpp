// SPDX-License-Identifier: MIT
// A storm of line signals and alarms from outside, at 1 to 10 kHz, through start, send, wait, connect and stop. While
// it blows no message may be damaged and the channel gets on; afterwards it runs by itself.
#include <atomic>
#include <chrono>
#include <thread>

#include "history.h"

namespace kvr::test {
namespace {

constexpr std::size_t kSignals = 5000;

/// Sends until so many signals are out, or until it is told to end.
class Storm {
  public:
    explicit Storm(pid_t pid) : pid_(pid), thread_([this] { blow(); }) {}
    ~Storm() { end(); }
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;

    void end() {
        over_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    [[nodiscard]] bool blows() const { return sent_ < kSignals; }

  private:
    void blow() {
        while (!over_ && blows()) {
            ::kill(pid_, sent_ % 2 == 0 ? SIGUSR2 : SIGALRM);
            std::this_thread::sleep_for(std::chrono::microseconds(1000 - ++sent_ % 1000 * 9 / 10));
        }
    }

    pid_t pid_;
    std::atomic<bool> over_ = false;
    std::atomic<std::size_t> sent_ = 0;
    std::thread thread_;
};

class StormOver : public ::testing::TestWithParam<Carrier> {};

TEST_P(StormOver, AChannelThatStartsSendsWaitsConnectsAndStops) {
    History h(1, GetParam(), true);
    const auto begin = [&] {
        h.mark();
        h.worker.emplace(h.field.run_channel());
        h.await_text("log", "starting, plug-in");
    };
    h.stop();
    h.field.set_channel({{"SHORTTMR", "0"}, {"SHORTRTY", "999999999"}, {"HBINT", "1"}});
    begin();
    {
        const Storm storm(h.worker->pid());
        for (int i = 0; storm.blows(); ++i) {
            h.put(3);
            const auto steps = [&] { return h.since("log", "start recv msg") + h.since("log", "begin connect"); };
            const std::size_t before = steps();
            await("the channel to get on", [&] { return steps() > before || !storm.blows(); });
            if (i % 100 == 99) {
                h.end_listener();
                h.listen();
            }
        }
    }
    ASSERT_FALSE(has_ended(*h.worker)) << "the worker ended in the storm: " << h.worker->result();
    h.rest({.cuts = kSignals, .dead = kSignals});
    Storm until_the_end(h.worker->pid());
    ::kill(h.worker->pid(), SIGTERM);
    await("the worker's end", [&] { return has_ended(*h.worker); });
    until_the_end.end(); // before the process id is free for others
    EXPECT_EQ(h.worker->result(), 0);
    EXPECT_EQ(h.field.status(), "STOPED");
    begin();
    h.finish();
}

INSTANTIATE_TEST_SUITE_P(Carriers, StormOver, ::testing::Values(Carrier::kPlain, Carrier::kTls13),
                         [](const auto& test) { return std::string(carrier_name(test.param)); });

} // namespace
} // namespace kvr::test
