// SPDX-License-Identifier: MIT
// The wait of a drainer: no put and no signal is missed. The system call of the wait is replaced by one without the
// second look, so that a missed wake-up hangs, and with something happening right before it.
#include <atomic>

#include <dlfcn.h>

#include "store_fixture.h"

namespace {

std::function<void()> g_before_wait; ///< runs between the drainer's last look and its wait
std::atomic<int> g_waits{0};

int wait_for_ever(pollfd* fds, nfds_t count, const sigset_t* mask) {
    using Ppoll = int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*);
    static const auto real = reinterpret_cast<Ppoll>(::dlsym(RTLD_NEXT, "ppoll")); // NOLINT
    ++g_waits;
    if (g_before_wait) {
        g_before_wait();
    }
    return real(fds, count, nullptr, mask);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int ppoll(pollfd* fds, nfds_t count, const timespec* /*timeout*/,
                                                            const sigset_t* mask) {
    return wait_for_ever(fds, count, mask);
}
extern "C" __attribute__((visibility("default"))) int
__ppoll_chk(pollfd* fds, nfds_t count, const timespec* /*timeout*/, const sigset_t* mask, std::size_t /*size*/) {
    return wait_for_ever(fds, count, mask);
}

namespace kvr {
namespace {

std::atomic<int> g_handled{0};

class WakeUpTest : public StoreTest {
  protected:
    WakeUpTest() {
        struct sigaction action {};
        action.sa_handler = [](int) { ++g_handled; };
        ::sigaction(SIGUSR1, &action, nullptr);
        g_waits = 0;
        g_handled = 0;
    }
    ~WakeUpTest() override {
        g_before_wait = nullptr;
        ::signal(SIGUSR1, SIG_DFL);
    }
};

TEST_F(WakeUpTest, PutRightBeforeTheWaitEndsIt) {
    make_store();
    const auto getter = store_->drain("Q");
    for (int i = 0; i < 3; ++i) {
        g_before_wait = [&] {
            g_before_wait = nullptr;
            put_text(*store_, "Q", std::to_string(i));
        };
        EXPECT_EQ(take_text(*getter, true), std::to_string(i));
    }
    EXPECT_EQ(g_waits, 3);
    put_text(*store_, "Q", "there");
    EXPECT_EQ(take_text(*getter, true), "there");
    EXPECT_EQ(g_waits, 3) << "no wait with a message on the queue";
}

TEST_F(WakeUpTest, ReleaseEndsTheWait) {
    make_store();
    put_text(*store_, "Q", "held");
    const auto getter = store_->drain("Q");
    ASSERT_EQ(take_text(*getter), "held");
    getter->hold("test");
    g_before_wait = [&] {
        g_before_wait = nullptr;
        store_->release_held("Q");
    };
    EXPECT_EQ(take_text(*getter, true), "held");
}

TEST_F(WakeUpTest, SignalRightBeforeTheWaitEndsIt) {
    make_store();
    const auto getter = store_->drain("Q");
    g_before_wait = [] { ::raise(SIGUSR1); };
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(take_text(*getter, true), "-");
        EXPECT_EQ(g_handled, i) << "the handler has run when the get returns";
    }
    g_before_wait = nullptr;
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGUSR1)) << "the caller's mask is back";
    EXPECT_TRUE(store_->queue_info("Q").drained_by == ::getpid());
}

TEST_F(WakeUpTest, CallersMaskHoldsInTheWait) {
    make_store();
    sigset_t blocked;
    sigset_t old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &old);
    const auto getter = store_->drain("Q");
    g_before_wait = [&] {
        ::raise(SIGUSR1); // the caller does not want it: it must not end the wait
        put_text(*store_, "Q", "message");
    };
    EXPECT_EQ(take_text(*getter, true), "message");
    EXPECT_EQ(g_handled, 0);
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    EXPECT_EQ(g_handled, 1);
}

} // namespace
} // namespace kvr
