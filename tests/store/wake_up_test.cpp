// SPDX-License-Identifier: MIT
// The wait of a drainer: no put and no signal is missed. The system call of the wait is replaced by one without its
// time limit, so that a missed wake-up hangs, and with something happening right before it; that of a flush by one in
// which something can happen.
#include <atomic>
#include <future>

#include <dlfcn.h>
#include <sys/eventfd.h>

#include "kavutil/export.h"
#include "kavutil/unique_fd.h"
#include "store_fixture.h"

namespace {

bool g_limits = true;                ///< of waits hold
pollfd g_waits_for{};                ///< what the drainer is about to wait for
std::atomic<int> g_waiting{0};       ///< waits that began
std::function<void()> g_before_wait; ///< runs once between the drainer's last look and its wait
std::function<void()> g_in_flush;    ///< runs once in the next flush
volatile std::sig_atomic_t g_handled = 0;

void run_once(std::function<void()>& act) {
    if (const auto now = std::exchange(act, nullptr)) {
        now();
    }
}

} // namespace

extern "C" KVR_EXPORT int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    static const auto real = reinterpret_cast<decltype(&ppoll)>(::dlsym(RTLD_NEXT, "ppoll")); // NOLINT
    if (g_limits) {
        return real(fds, count, timeout, mask);
    }
    g_waits_for = *fds;
    run_once(g_before_wait);
    ++g_waiting;
    g_waiting.notify_all();
    return real(fds, count, nullptr, mask);
}
extern "C" KVR_EXPORT int fdatasync(int fd) {
    run_once(g_in_flush);
    return ::fsync(fd);
}

namespace kvr {

class WakeUpTest : public StoreTest {
  protected:
    WakeUpTest() : getter_(store_->drain("Q")) {
        std::signal(SIGUSR1, [](int) { g_handled = g_handled + 1; });
        g_handled = 0;
        g_limits = false;
        store_->change_settings({{"sync", "on"}});
    }
    ~WakeUpTest() override { g_limits = true; }
    std::string take_with(const std::function<void()>& before_wait) {
        g_before_wait = before_wait;
        return take(*getter_, true);
    }
    std::unique_ptr<Getter> getter_;
};
KVR_OVER_EVERY_ENGINE(WakeUpTest);

TEST_P(WakeUpTest, APutOrAReleaseRightBeforeTheWaitEndsIt) {
    const auto put_and_look = [&] {
        g_in_flush = [] { EXPECT_EQ(::poll(&g_waits_for, 1, 0), 0) << "woken before the message is there"; };
        put("1");
    };
    EXPECT_EQ(take_with(put_and_look), "1");
    EXPECT_EQ(take_with([&] { put("2"); }), "2");
    getter_->hold("test");
    EXPECT_EQ(take_with([&] { store_->release_held("Q"); }), "2");
}

TEST_P(WakeUpTest, ASignalRightBeforeTheWaitEndsItUnlessTheCallerHoldsIt) {
    EXPECT_EQ(take_with([] { ::raise(SIGUSR1); }), "-");
    EXPECT_EQ(g_handled, 1) << "the handler has run when the get returns";
    test::mask_signal(SIG_BLOCK, SIGUSR1);
    const auto raise_and_put = [&] { ::raise(SIGUSR1), put("message"); };
    EXPECT_EQ(take_with(raise_and_put), "message");
    EXPECT_EQ(g_handled, 1);
    test::mask_signal(SIG_UNBLOCK, SIGUSR1);
    EXPECT_EQ(g_handled, 2);
}

TEST_P(WakeUpTest, ASignalInTheDeletesOfTheLastGroupEndsTheWait) {
    for (const std::size_t count : {1U, 512U}) { // of 512 the group is full, too
        put_all(Texts(count, "x"));
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(take(*getter_, true), "x");
        }
        g_handled = 0;
        g_in_flush = [] { ::raise(SIGUSR1); };
        const auto end_a_wait_that_missed_it = [&] { g_handled > 0 ? put("missed") : Errc{}; };
        EXPECT_EQ(take_with(end_a_wait_that_missed_it), "-");
    }
}

class TakersWakeUpTest : public WakeUpTest {
  protected:
    TakersWakeUpTest() { getter_.reset(), taker_ = store_->take_from("Q"); }
    Taken next(Taker& taker, const std::function<void()>& before_wait) {
        g_before_wait = before_wait;
        return taker.next({}, {.time = std::nullopt, .interrupt = interrupt_.get()}, message_);
    }
    UniqueFd interrupt_{::eventfd(0, EFD_CLOEXEC)};
    TakenMessage message_;
    std::unique_ptr<Taker> taker_;
};
KVR_OVER_EVERY_ENGINE(TakersWakeUpTest);

TEST_P(TakersWakeUpTest, WhatComesRightBeforeATakersWaitEndsIt) {
    EXPECT_EQ(next(*taker_, [&] { put("1"); }), Taken::kMessage);
    EXPECT_EQ(next(*taker_, [] { ::raise(SIGUSR1); }), Taken::kInterrupted);
    EXPECT_EQ(g_handled, 1);
    EXPECT_EQ(next(*taker_, [&] { ::eventfd_write(interrupt_.get(), 1); }), Taken::kInterrupted);
    interrupt_.reset();
    const auto other = store_->take_from("Q");
    EXPECT_EQ(next(*other, [&] { taker_->give_back(std::vector{message_.sequence}); }), Taken::kMessage);
    EXPECT_EQ(message_.given_back, 1U);
}

TEST_P(TakersWakeUpTest, EachOfThoseThatWaitIsWokenForAMessageOfItsOwn) {
    g_waiting = 0;
    std::vector<std::future<std::string>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(std::async(std::launch::async, [this] {
            TakenMessage message;
            const auto taker = store_->take_from("Q");
            taker->next({}, {.time = std::nullopt}, message);
            store_->commit({}, std::vector<UnitTake>{{taker.get(), {&message.sequence, 1}}});
            return message.data;
        }));
    }
    for (int begun = g_waiting; begun < 3; begun = g_waiting) {
        g_waiting.wait(begun);
    }
    put_all({"1", "2", "3"}); // one wake-up for all
    Texts texts;
    for (auto& each : waiting) {
        texts.push_back(each.get());
    }
    EXPECT_THAT(texts, testing::UnorderedElementsAre("1", "2", "3"));
}

} // namespace kvr
