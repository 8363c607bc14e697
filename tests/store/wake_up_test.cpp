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
extern "C" KVR_EXPORT int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask,
                                      std::size_t /*size*/) {
    return ppoll(fds, count, timeout, mask);
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
        struct sigaction action {};
        action.sa_handler = [](int) { g_handled = g_handled + 1; };
        ::sigaction(SIGUSR1, &action, nullptr);
        g_waits = 0;
        g_handled = 0;
    }
    std::string take_with(const std::function<void()>& before_wait) {
        g_before_wait = before_wait;
        return take(*getter_, true);
    }
    static void change_mask(int how) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGUSR1);
        ::pthread_sigmask(how, &signals, nullptr);
    }
    std::unique_ptr<Getter> getter_;
};
KVR_OVER_EVERY_ENGINE(WakeUpTest);

TEST_P(WakeUpTest, APutOrAReleaseRightBeforeTheWaitEndsIt) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(take_with([&] { put(std::to_string(i)); }), std::to_string(i));
    }
    EXPECT_EQ(g_waits, 3);
    put("there");
    EXPECT_EQ(take_with({}), "there");
    EXPECT_EQ(g_waits, 3) << "no wait with a message on the queue";
    getter_->hold("test");
    EXPECT_EQ(take_with([&] { store_->release_held("Q"); }), "there");
}

TEST_P(WakeUpTest, ASignalRightBeforeTheWaitEndsItAsTheCallersMaskSays) {
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(take_with([] { ::raise(SIGUSR1); }), "-");
        EXPECT_EQ(g_handled, i) << "the handler has run when the get returns";
    }
    change_mask(SIG_BLOCK);
    const auto raise_and_put = [&] {
        ::raise(SIGUSR1); // the caller does not want it: it must not end the wait
        put("message");
    };
    EXPECT_EQ(take_with(raise_and_put), "message");
    EXPECT_EQ(g_handled, 3);
    change_mask(SIG_UNBLOCK);
    EXPECT_EQ(g_handled, 4);
}

TEST_P(WakeUpTest, ASignalInTheDeletesOfTheLastGroupEndsTheWait) {
    store_->change_settings({{"sync", "on"}});
    for (const int count : {1, 512}) { // of 512 the group is full, too
        put_numbers(0, count);
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(take(*getter_, true), std::to_string(i));
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
