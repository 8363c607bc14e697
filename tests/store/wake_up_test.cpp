// SPDX-License-Identifier: MIT
// The wait of a drainer: no put and no signal is missed. The system call of the wait is replaced by one without the
// second look, so that a missed wake-up hangs, and with something happening right before it; that of a flush by one in
// which something can happen.
#include <dlfcn.h>

#include "store_fixture.h"

namespace {

std::function<void()> g_before_wait; ///< runs once between the drainer's last look and its wait
std::function<void()> g_in_flush;    ///< runs once in the next flush
int g_waits = 0;
volatile std::sig_atomic_t g_handled = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int ppoll(pollfd* fds, nfds_t count, const timespec* /*timeout*/,
                                                            const sigset_t* mask) {
    static const auto real = reinterpret_cast<decltype(&ppoll)>(::dlsym(RTLD_NEXT, "ppoll")); // NOLINT
    ++g_waits;
    if (const auto act = std::exchange(g_before_wait, nullptr)) {
        act();
    }
    return real(fds, count, nullptr, mask);
}
extern "C" __attribute__((visibility("default"))) int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout,
                                                                  const sigset_t* mask, std::size_t /*size*/) {
    return ppoll(fds, count, timeout, mask);
}
extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
    if (const auto act = std::exchange(g_in_flush, nullptr)) {
        act();
    }
    return ::fsync(fd);
}

namespace kvr {
namespace {

class WakeUpTest : public StoreTest {
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
    std::unique_ptr<Getter> getter_;
};

TEST_F(WakeUpTest, APutOrAReleaseRightBeforeTheWaitEndsIt) {
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

TEST_F(WakeUpTest, ASignalRightBeforeTheWaitEndsIt) {
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(take_with([] { ::raise(SIGUSR1); }), "-");
        EXPECT_EQ(g_handled, i) << "the handler has run when the get returns";
    }
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGUSR1)) << "the caller's mask is back";
    EXPECT_EQ(store_->queue_info("Q").drained_by, local_owner(::getpid()));
}

TEST_F(WakeUpTest, ASignalInTheDeletesOfTheLastGroupEndsTheWait) {
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

TEST_F(WakeUpTest, CallersMaskHoldsInTheWait) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    const std::string text = take_with([&] {
        ::raise(SIGUSR1); // the caller does not want it: it must not end the wait
        put("message");
    });
    EXPECT_EQ(text, "message");
    EXPECT_EQ(g_handled, 0);
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    EXPECT_EQ(g_handled, 1);
}

} // namespace
} // namespace kvr
