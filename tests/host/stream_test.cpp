// SPDX-License-Identifier: MIT
// Exact-length read and write on real sockets: under signals, with peers that stall, drip or go, and under a stop.
#include <array>
#include <numeric>
#include <sys/socket.h>
#include <vector>

#include <gtest/gtest.h>

#include "children.h"
#include "kavutil.h"
#include "kavutil/stop_point.h"

namespace {

using kvr::test::Child;

constexpr int kLarge = 8 << 20;
constexpr int kStopped = 42;

struct Sockets {
    explicit Sockets(bool pipe_instead = false) {
        EXPECT_EQ(pipe_instead ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    }
    ~Sockets() {
        close(ends[0]);
        close(ends[1]);
    }
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;
    int ends[2]{-1, -1};
};

void alarms(int microseconds, void (*handler)(int)) {
    struct sigaction action {}; // no SA_RESTART
    action.sa_handler = handler;
    sigaction(SIGALRM, &action, nullptr);
    kvr::test::repeat_alarm(microseconds);
}

TEST(Stream, CarriesEveryByteUnderSignals) {
    std::vector<unsigned> sent(kLarge / sizeof(unsigned));
    std::iota(sent.begin(), sent.end(), 0x01020304U);
    for (const bool on_pipe : {false, true}) {
        const Sockets sockets(on_pipe);
        Child reader = Child::fork_off([&] {
            alarms(300, [](int) {});
            std::vector<unsigned> received(sent.size());
            int progress = -1;
            const int result = streamReadNByte(received.data(), kLarge, &progress, sockets.ends[0]);
            return result == kLarge && progress == kLarge && received == sent ? 0 : 1;
        });
        alarms(300, [](int) {});
        EXPECT_EQ(streamWriteNByte(sent.data(), kLarge, sockets.ends[1]), kLarge);
        kvr::test::repeat_alarm(0);
        EXPECT_EQ(reader.result(), 0);
    }
}

TEST(Stream, TellsWhyItFailed) {
    Sockets sockets;
    char bytes[16] = {};
    int got = -1;
    ASSERT_EQ(write(sockets.ends[1], "abc", 3), 3);
    shutdown(sockets.ends[1], SHUT_WR);
    EXPECT_EQ(streamReadNByte(bytes, sizeof(bytes), &got, sockets.ends[0]), 0) << "the end of the stream";
    EXPECT_EQ(got, 3);
    close(std::exchange(sockets.ends[1], -1));
    const std::array<int, 4> cases[] = {// length, socket, result, error
                                        {0, -1, 0, 0},
                                        {-1, sockets.ends[0], -1, EINVAL},
                                        {16, -1, -1, EBADF},
                                        {16, sockets.ends[0], -1, EPIPE}};
    for (const auto& [length, sock, result, error] : cases) {
        errno = 0;
        EXPECT_EQ(streamWriteNByte(bytes, length, sock), result); // SIGPIPE would end the test
        EXPECT_EQ(errno, error);
    }
}

void end_stopped(kvr::StopPlace place) {
    _exit(place == kvr::StopPlace::kMidMessage ? kStopped : 1);
}

/// Runs `work` on a socket that nobody reads, in a child with a stop hook under stop signals.
int stopped_in(const std::function<int(int)>& work) {
    const Sockets sockets;
    Child child = Child::fork_off([&] {
        kvr::stop_set_hook(end_stopped);
        alarms(10000, [](int) { kvr::stop_request(); });
        return work(sockets.ends[1]);
    });
    return child.result();
}

int g_sock = -1;
int g_result = 0;

TEST(StreamStop, AStalledWriteInAHandlerFails) {
    const auto write_in_handler = [](int sock) {
        g_sock = sock;
        std::signal(SIGUSR1, [](int) {
            static char s_bytes[kLarge];
            const int result = streamWriteNByte(s_bytes, kLarge, g_sock);
            g_result = result == -1 && errno == EINTR ? 7 : 1;
        });
        raise(SIGUSR1);
        return g_result;
    };
    EXPECT_EQ(stopped_in(write_in_handler), 7);
}

TEST(StreamStop, WritesThatNeverWaitGoOnForAWhileOnly) {
    const auto write_on_and_on = [](int /*sock*/) {
        const Sockets open;
        char bytes[64] = {};
        kvr::stop_set_hook([](kvr::StopPlace) { _exit(1); }); // the message in hand was not finished
        kvr::stop_request();
        if (streamWriteNByte(bytes, sizeof(bytes), open.ends[1]) != sizeof(bytes)) {
            return 1;
        }
        kvr::stop_set_hook(end_stopped);
        for (;;) {
            streamReadNByte(bytes, sizeof(bytes), nullptr, open.ends[0]);
            streamWriteNByte(bytes, sizeof(bytes), open.ends[1]);
        }
    };
    EXPECT_EQ(stopped_in(write_on_and_on), kStopped);
}

} // namespace
