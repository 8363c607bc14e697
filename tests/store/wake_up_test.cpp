// SPDX-License-Identifier: MIT
// The wait of a drainer: no put and no signal is missed. The system call of the wait is replaced by one without the
// second look, so that a missed wake-up hangs, and with something happening right before it; that of a flush by one in
// which something can happen.
#include <dlfcn.h>

#include "kavutil/export.h"
#include "store_fixture.h"

namespace {

std::function<void()> g_before_wait; ///< runs once between the drainer's last look and its wait
std::function<void()> g_in_flush;    ///< runs once in the next flush
int g_waits = 0;
volatile std::sig_atomic_t g_handled = 0;

} // namespace

extern "C" KVR_EXPORT int ppoll(pollfd* fds, nfds_t count, const timespec* /*timeout*/, const sigset_t* mask) {
    static const auto real = reinterpret_cast<decltype(&ppoll)>(::dlsym(RTLD_NEXT, "ppoll")); // NOLINT
    ++g_waits;
    if (const auto act = std::exchange(g_before_wait, nullptr)) {
        act();
    }
    return real(fds, count, nullptr, mask);
}
extern "C" KVR_EXPORT int fdatasync(int fd) {
    if (const auto act = std::exchange(g_in_flush, nullptr)) {
        act();
    }
    return ::fsync(fd);
}

namespace kvr {
namespace {

class WakeUpTest : public EngineTest {
  protected:
    WakeUpTest() : getter_(store_->drain("Q")) {
        std::signal(SIGUSR1, [](int) { g_handled = g_handled + 1; });
        g_waits = 0;
        g_handled = 0;
    }
    std::string take_with(const std::function<void()>& before_wait) {
        g_before_wait = before_wait;
        return take(*getter_, true);
    }
    std::unique_ptr<Getter> getter_;
};
KVR_OVER_EVERY_ENGINE(WakeUpTest);

TEST_P(WakeUpTest, APutOrAReleaseRightBeforeTheWaitEndsIt) {
    for (const char* text : {"1", "2", "3"}) {
        EXPECT_EQ(take_with([&] { put(text); }), text);
    }
    EXPECT_EQ(g_waits, 3);
    put("there");
    EXPECT_EQ(take_with({}), "there");
    EXPECT_EQ(g_waits, 3) << "no wait with a message on the queue";
    getter_->hold("test");
    EXPECT_EQ(take_with([&] { store_->release_held("Q"); }), "there");
}

TEST_P(WakeUpTest, ASignalRightBeforeTheWaitEndsItUnlessTheCallerHoldsIt) {
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(take_with([] { ::raise(SIGUSR1); }), "-");
        EXPECT_EQ(g_handled, i) << "the handler has run when the get returns";
    }
    test::mask_signal(SIG_BLOCK, SIGUSR1);
    const auto raise_and_put = [&] {
        ::raise(SIGUSR1);
        put("message");
    };
    EXPECT_EQ(take_with(raise_and_put), "message");
    EXPECT_EQ(g_handled, 3);
    test::mask_signal(SIG_UNBLOCK, SIGUSR1);
    EXPECT_EQ(g_handled, 4);
}

TEST_P(WakeUpTest, ASignalInTheDeletesOfTheLastGroupEndsTheWait) {
    store_->change_settings({{"sync", "on"}});
    for (const std::size_t count : {1U, 512U}) { // of 512 the group is full, too
        put_all(Texts(count, "x"));
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(take(*getter_, true), "x");
        }
        g_handled = 0;
        g_in_flush = [] { ::raise(SIGUSR1); };
        const auto end_a_wait_that_missed_it = [&] {
            if (g_handled > 0) {
                put("missed");
            }
        };
        EXPECT_EQ(take_with(end_a_wait_that_missed_it), "-");
        EXPECT_EQ(g_handled, 1);
    }
}

} // namespace
} // namespace kvr
