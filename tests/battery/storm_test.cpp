// SPDX-License-Identifier: MIT
// A storm of line signals and alarms from outside, at 1 to 10 kHz, through start, send, wait, connect and stop. While
// it blows no message may be damaged and the channel must not stand still; afterwards it runs by itself.
#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "injector.h"
#include "log_tail.h"

namespace kvr::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kQuickSignals = 8000;
constexpr auto kGreatestGap = std::chrono::seconds(5);
constexpr auto kLookAgain = milliseconds(5);
/// Of every so many signals the rate goes once from slow to fast.
constexpr std::size_t kSwell = 1000;
constexpr auto kSlowest = std::chrono::microseconds(1000);
constexpr auto kFastest = std::chrono::microseconds(100);

/// Sends until so many signals are out, or until it is told to end.
class Storm {
  public:
    Storm(pid_t pid, std::size_t signals) : pid_(pid), wanted_(signals), thread_([this] { blow(); }) {}
    ~Storm() { end(); }
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;

    void end() {
        over_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    [[nodiscard]] std::size_t sent() const { return sent_; }

  private:
    void blow() {
        while (!over_ && sent_ < wanted_) {
            ::kill(pid_, sent_ % 2 == 0 ? SIGUSR2 : SIGALRM);
            const std::size_t part = ++sent_ % kSwell;
            std::this_thread::sleep_for(kSlowest - (kSlowest - kFastest) * static_cast<long>(part) / kSwell);
        }
    }

    pid_t pid_;
    std::size_t wanted_;
    std::atomic<bool> over_ = false;
    std::atomic<std::size_t> sent_ = 0;
    std::thread thread_;
};

/// Looks for signs that the channel's main flow gets on: what its handlers log does not count.
class Progress {
  public:
    explicit Progress(const Field& field) : log_(field.home() / "log") {}

    void look() {
        log_.each_new_line([this](const std::string& line) {
            if (line.find("start recv msg") != std::string::npos || line.find("begin connect") != std::string::npos) {
                last_ = Clock::now();
            }
        });
        greatest_ = std::max(greatest_, Clock::now() - last_);
    }
    [[nodiscard]] Clock::duration greatest() const { return greatest_; }

  private:
    LogTail log_;
    Clock::time_point last_ = Clock::now();
    Clock::duration greatest_{};
};

int in_ms(Clock::duration time) {
    return static_cast<int>(std::chrono::duration_cast<milliseconds>(time).count());
}

class StormOver : public ::testing::TestWithParam<Carrier> {};

TEST_P(StormOver, AChannelThatStartsSendsWaitsConnectsAndStops) {
    const std::size_t signals = rounds(kQuickSignals);
    Field field(GetParam());
    field.set_channel({{"SHORTTMR", "0"}, {"SHORTRTY", "999999999"}, {"HBINT", "1"}});
    std::optional<Child> listener(field.listen());
    Injector injector(field);
    Child worker = field.run_channel(injector.environment());
    field.await_log("starting, plug-in");
    Storm storm(worker.pid(), signals);
    Progress progress(field);
    int restarts = 0;
    while (storm.sent() < signals && !has_ended(worker)) {
        if (field.depth() < 10) {
            field.put_one_of_each();
        }
        if (storm.sent() * 4 / signals > static_cast<std::size_t>(restarts)) { // three times on the way
            listener.reset();
            listener.emplace(field.listen());
            ++restarts;
        }
        progress.look();
        std::this_thread::sleep_for(kLookAgain);
    }
    storm.end();
    ASSERT_FALSE(has_ended(worker)) << "the worker ended in the storm: " << worker.result();
    const Clock::time_point calm = Clock::now();
    field.put(MessageKind::kData, 1, 10, 10);
    field.await_drained();
    field.await_status("RUNING");
    const Clock::duration recovery = Clock::now() - calm;
    Storm until_the_end(worker.pid(), signals);
    ::kill(worker.pid(), SIGTERM);
    await("the worker's end", [&] { return has_ended(worker); });
    until_the_end.end(); // before the process id is free for others
    EXPECT_EQ(worker.result(), 0);
    EXPECT_EQ(field.status(), "STOPED");

    EXPECT_EQ(end_listener(*listener), 0);
    const Verdict verdict = field.judge(storm.sent(), 0);
    injector.expect_no_finding();
    EXPECT_LT(in_ms(progress.greatest()), in_ms(kGreatestGap));
    EXPECT_LT(in_ms(recovery), in_ms(kGreatestGap));
    RecordProperty("signals", static_cast<int>(storm.sent()));
    RecordProperty("handlers run", injector.control().handled);
    RecordProperty("greatest gap ms", in_ms(progress.greatest()));
    RecordProperty("running again after ms", in_ms(recovery));
    RecordProperty("delivered", static_cast<int>(verdict.delivered));
    RecordProperty("dead-lettered", static_cast<int>(verdict.dead));
    RecordProperty("lost in cuts", static_cast<int>(verdict.lost));
}

INSTANTIATE_TEST_SUITE_P(Carriers, StormOver, kPlainAndTls, name_of_carrier);

} // namespace
} // namespace kvr::test
