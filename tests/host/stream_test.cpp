// SPDX-License-Identifier: MIT
// Exact-length read and write on real sockets: under signals, with peers that stall, drip or go, and under a stop.
#include <atomic>
#include <csignal>
#include <numeric>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "children.h"
#include "kavutil.h"
#include "stop_point.h"

namespace {

using kvr::test::Child;
using kvr::test::Signposts;

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

/// Signals by the thousand for the main flow, no SA_RESTART, while `work` runs in a thread that takes none.
class Storm {
  public:
    explicit Storm(const std::function<void()>& work) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
        thread_ = std::thread(work);
        pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
        const itimerval often{{0, 300}, {0, 300}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Storm() {
        const itimerval calm{};
        setitimer(ITIMER_REAL, &calm, nullptr);
        thread_.join();
    }
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;

  private:
    std::thread thread_;
};

TEST(Stream, CarriesEveryByteUnderSignals) {
    std::vector<unsigned> sent(kLarge / sizeof(unsigned));
    std::iota(sent.begin(), sent.end(), 0x01020304U);
    for (const bool on_pipe : {false, true}) {
        std::vector<unsigned> received(sent.size());
        const Sockets sockets(on_pipe);
        int progress = -1;
        {
            const Storm storm(
                [&] { EXPECT_EQ(streamReadNByte(received.data(), kLarge, &progress, sockets.ends[0]), kLarge); });
            EXPECT_EQ(streamWriteNByte(sent.data(), kLarge, sockets.ends[1]), kLarge);
        }
        EXPECT_EQ(progress, kLarge);
        EXPECT_EQ(sent, received);
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
    EXPECT_EQ(streamReadNByte(bytes, sizeof(bytes), &got, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(got, 0);

    close(sockets.ends[1]);
    sockets.ends[1] = -1;
    const struct {
        int length;
        int sock;
        int result;
        int error;
    } cases[] = {
        {0, -1, 0, 0}, {-1, sockets.ends[0], -1, EINVAL}, {16, -1, -1, EBADF}, {16, sockets.ends[0], -1, EPIPE}};
    for (const auto& [length, sock, result, error] : cases) {
        errno = 0;
        EXPECT_EQ(streamWriteNByte(bytes, length, sock), result); // SIGPIPE would end the test
        EXPECT_EQ(errno, error);
    }
}

TEST(Stream, ADrippingReaderCannotProlongTheSendTimeOut) {
    std::vector<char> bytes(kLarge);
    for (const bool drips : {false, true}) {
        Sockets sockets;
        const timeval limit{0, 300000};
        setsockopt(sockets.ends[1], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        std::atomic<bool> done = false;
        const Storm storm([&] {
            char buffer[4096];
            while (drips && !done) {
                [[maybe_unused]] const ssize_t got = recv(sockets.ends[0], buffer, sizeof(buffer), MSG_DONTWAIT);
                usleep(2000); // slow on purpose: at most 2 MB/s
            }
        });
        EXPECT_EQ(streamWriteNByte(bytes.data(), kLarge, sockets.ends[1]), -1);
        EXPECT_EQ(errno, EAGAIN);
        done = true;
    }
}

void end_stopped(kvr::StopPlace place) {
    _exit(place == kvr::StopPlace::kMidMessage ? kStopped : 1);
}

/// Runs `work` on a socket that nobody reads, in a child with a stop hook, and sends the stop signal until it ends.
int stopped_in(const std::function<int(int)>& work) {
    Sockets sockets;
    Signposts posts;
    Child child = Child::fork_off([&] {
        struct sigaction action {};
        action.sa_handler = [](int) { kvr::stop_request(); };
        sigaction(SIGTERM, &action, nullptr);
        kvr::stop_set_hook(end_stopped);
        return write(posts.write_end(), "W", 1) == 1 ? work(sockets.ends[1]) : 1;
    });
    EXPECT_TRUE(posts.passed('W'));
    return child.result_under(SIGTERM);
}

int g_sock = -1;
int g_result = 0;

TEST(StreamStop, AStalledWriteInAHandlerFails) {
    EXPECT_EQ(stopped_in([](int sock) {
                  g_sock = sock;
                  struct sigaction action {};
                  action.sa_handler = [](int) {
                      static char s_bytes[kLarge];
                      const int result = streamWriteNByte(s_bytes, kLarge, g_sock);
                      g_result = result == -1 && errno == EINTR ? 7 : 1;
                  };
                  sigaction(SIGALRM, &action, nullptr);
                  raise(SIGALRM);
                  return g_result;
              }),
              7);
}

TEST(StreamStop, WritesThatNeverWaitGoOnForAWhileOnly) {
    EXPECT_EQ(stopped_in([](int /*sock*/) {
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
              }),
              kStopped);
}

} // namespace
