// SPDX-License-Identifier: MIT
// The receiver closes at random points around the get. A line signal that comes while the get waits must end the wait;
// one that is handled outside of it must be acted upon without a message or a heartbeat.
#include <algorithm>
#include <mutex>
#include <random>

#include "field.h"
#include "kavro_chl.h"
#include "log_tail.h"
#include "wait_marks.h"

namespace kvr::test {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::size_t kBody = 500;
constexpr std::chrono::seconds kForEver{10};
constexpr Milliseconds kNoticed{200};

/// Reads from the order of the log's lines which signals came in the wait and whether the worker acted upon each.
class Order {
  public:
    explicit Order(std::filesystem::path log) : tail_(std::move(log)) {}

    void read() {
        tail_.each_new_line([this](const std::string& line) { see(line); });
    }
    /// The worker waits and no signal came meanwhile.
    [[nodiscard]] bool rests() const { return waits_ && !due_; }

    std::size_t in_wait = 0;
    std::size_t outside = 0;
    std::size_t missed = 0;

  private:
    void see(const std::string& line) {
        const auto has = [&](const char* text) { return line.find(text) != std::string::npos; };
        if (has("battery: waits")) {
            missed += due_ ? 1U : 0U; // waiting again without a new line
            waits_ = true;
            due_ = false;
        } else if (has("line disconnected [0]")) {
            ++(waits_ ? in_wait : outside);
            due_ = waits_;
        } else if (has("] conn[") || has("rcv len[")) {
            waits_ = false;
            due_ = false;
        }
    }

    LogTail tail_;
    bool waits_ = false;
    bool due_ = false;
};

/// A receiver that closes each line once, at a random point.
class ClosingPeer {
  public:
    ClosingPeer(Field& field, std::size_t closes)
        : field_(field), closes_(closes), peer_({}, [this](PeerConnection& line) { serve(line); }) {}
    ~ClosingPeer() { end_.set(); }
    ClosingPeer(const ClosingPeer&) = delete;
    ClosingPeer& operator=(const ClosingPeer&) = delete;

    [[nodiscard]] int port() const { return peer_.port(); }
    [[nodiscard]] bool done() const { return all_closed_; }
    [[nodiscard]] std::size_t made() const { return made_; }
    void put() {
        const std::scoped_lock guard(mutex_);
        field_.put(MessageKind::kData, 1, kBody, kBody);
    }
    /// Since the last close, while nobody has connected anew.
    [[nodiscard]] Clock::duration unnoticed_for() {
        const std::scoped_lock guard(mutex_);
        return closed_ == Clock::time_point() ? Clock::duration(0) : Clock::now() - closed_;
    }
    /// How long each new connection took; for one thread, at the end.
    std::vector<Milliseconds>& times() { return times_; }
    void let_go() { end_.set(); }

  private:
    void serve(PeerConnection& line) {
        const std::size_t bind = sizeof(T_KAVRO_CHL_HDR) + sizeof(kChannel) - 1;
        {
            const std::scoped_lock guard(mutex_);
            if (closed_ != Clock::time_point()) {
                times_.emplace_back(Clock::now() - closed_);
            }
            closed_ = {};
        }
        line.read(bind);
        if (made_ == closes_) {
            all_closed_ = true;
            (void)end_.wait();
            return;
        }
        pause(line);
        const std::scoped_lock guard(mutex_);
        closed_ = Clock::now();
        line.close();
        ++made_;
    }

    /// Idle; with a message on its way; right behind a message, when the worker is on its way back to the get.
    void pause(PeerConnection& line) {
        const std::size_t kind = made_ % 3;
        if (kind > 0) {
            put();
        }
        if (kind == 2) {
            line.read(sizeof(T_KAVRO_CHL_HDR) + sizeof(T_KAVRO_CHL_MD) + kBody);
        }
        const int most = kind == 2 ? 200 : 3000;
        const auto until = Clock::now() + std::chrono::microseconds(std::uniform_int_distribution(0, most)(random_));
        while (Clock::now() < until) { // a sleep would be too coarse
        }
    }

    Field& field_;
    std::size_t closes_;
    std::atomic<std::size_t> made_ = 0;
    std::mutex mutex_;
    Clock::time_point closed_;
    std::vector<Milliseconds> times_;
    std::mt19937 random_{20260102};
    std::atomic<bool> all_closed_ = false;
    Event end_;
    Peer peer_; // the last member: its thread uses the others
};

TEST(Wakeup, ALineSignalInTheGetEndsItsWait) {
    Field field;
    field.set_channel({{"SHORTRTY", "100000"}});
    const std::size_t closes = rounds(150);
    ClosingPeer peer(field, closes);
    field.point_at(peer.port());
    Order order(field.home() / "log");
    Child worker = field.run_channel(short_pauses((field.home() / "log").native()));

    std::size_t nudges = 0;
    std::size_t late = 0;
    while (!peer.done()) {
        bool forgotten = false;
        const std::size_t made = peer.made();
        await("the next close or its notice", [&] {
            order.read();
            forgotten = peer.unnoticed_for() > kForEver && order.rests();
            return peer.done() || peer.made() != made || forgotten;
        });
        if (::testing::Test::HasFailure()) {
            peer.let_go();
            return;
        }
        if (forgotten) {
            ++nudges;
            peer.put();
            await("the new line", [&] { return peer.done() || peer.unnoticed_for() < kForEver; });
        }
    }
    Child listener = field.listen();
    peer.let_go();
    field.await_log("] conn[127.0.0.1(" + std::to_string(field.port()));
    field.put(MessageKind::kData, 20, 0, 5000);
    field.await_drained();
    field.await_arrived(20);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    order.read();

    // A message put to make the worker look is no notice.
    std::sort(peer.times().begin(), peer.times().end());
    late = static_cast<std::size_t>(
        std::count_if(peer.times().begin(), peer.times().end(), [](Milliseconds time) { return time > kNoticed; }));
    EXPECT_EQ(order.missed, 0U);
    EXPECT_EQ(nudges, 0U) << "closes that only a message made the worker see";
    EXPECT_EQ(peer.times().size(), closes);
    EXPECT_GE(order.in_wait, closes / 10) << "the attack missed the get";
    RecordProperty("closes", std::to_string(closes));
    RecordProperty("signals in the wait", std::to_string(order.in_wait));
    RecordProperty("signals outside of it", std::to_string(order.outside));
    RecordProperty("found at the next message only", std::to_string(nudges));
    RecordProperty("noticed after more than 200 ms", std::to_string(late - std::min(late, nudges)));
    RecordProperty("median microseconds", std::to_string(peer.times()[peer.times().size() / 2].count() * 1000));
    const Verdict verdict = field.judge(closes + 1);
    EXPECT_GE(verdict.delivered, 20U);
    EXPECT_EQ(verdict.dead + verdict.held + verdict.waiting, 0U);
}

} // namespace
} // namespace kvr::test
