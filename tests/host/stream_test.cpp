// SPDX-License-Identifier: MIT
// Exact-length read and write on real sockets: under signals, with peers that stall, drip or go, and under a stop.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
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

std::vector<char> pattern(int length) {
    std::vector<char> bytes(static_cast<std::size_t>(length));
    unsigned state = 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

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

/// Signals by the thousand for the calling thread's process, no SA_RESTART.
class SignalStorm {
  public:
    SignalStorm() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
        const itimerval storm{{0, 300}, {0, 300}};
        setitimer(ITIMER_REAL, &storm, nullptr);
    }
    ~SignalStorm() {
        const itimerval calm{};
        setitimer(ITIMER_REAL, &calm, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

  private:
    struct sigaction before_ {};
};

/// Starts a thread that takes no signals.
std::thread quiet_thread(const std::function<void()>& work) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(work);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

TEST(Stream, CarriesEveryByteUnderSignals) {
    std::vector<char> sent = pattern(kLarge);
    for (const bool on_pipe : {false, true}) {
        std::vector<char> received(sent.size());
        const Sockets sockets(on_pipe);
        int read_so_far = -1;
        std::thread reader = quiet_thread(
            [&] { EXPECT_EQ(streamReadNByte(received.data(), kLarge, &read_so_far, sockets.ends[0]), kLarge); });
        {
            const SignalStorm storm;
            EXPECT_EQ(streamWriteNByte(sent.data(), kLarge, sockets.ends[1]), kLarge);
        }
        reader.join();
        EXPECT_EQ(read_so_far, kLarge);
        EXPECT_EQ(sent, received);
    }
}

TEST(Stream, ReadTellsTheEndFromAFailure) {
    Sockets sockets;
    char buffer[8];
    int got = -1;
    ASSERT_EQ(write(sockets.ends[1], "abc", 3), 3);
    shutdown(sockets.ends[1], SHUT_WR);
    EXPECT_EQ(streamReadNByte(buffer, sizeof(buffer), &got, sockets.ends[0]), 0);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(streamReadNByte(buffer, sizeof(buffer), &got, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(got, 0);
}

TEST(Stream, WriteFailsWithAReason) {
    Sockets sockets;
    char bytes[16] = {};
    EXPECT_EQ(streamWriteNByte(bytes, 0, -1), 0) << "nothing to write needs no socket";
    EXPECT_EQ(streamWriteNByte(bytes, -1, sockets.ends[0]), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(streamWriteNByte(bytes, sizeof(bytes), -1), -1);
    EXPECT_EQ(errno, EBADF);
    close(sockets.ends[1]);
    sockets.ends[1] = -1;
    EXPECT_EQ(streamWriteNByte(bytes, sizeof(bytes), sockets.ends[0]), -1); // SIGPIPE would end the test
    EXPECT_EQ(errno, EPIPE);
}

TEST(Stream, ADrippingReaderCannotProlongTheSendTimeOut) {
    std::vector<char> bytes = pattern(kLarge);
    for (const bool drips : {false, true}) {
        Sockets sockets;
        const timeval limit{0, 300000};
        setsockopt(sockets.ends[1], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        std::atomic<bool> done = false;
        std::thread reader = quiet_thread([&] {
            char buffer[4096];
            while (drips && !done) {
                [[maybe_unused]] const ssize_t got = recv(sockets.ends[0], buffer, sizeof(buffer), MSG_DONTWAIT);
                usleep(2000); // slow on purpose: at most 2 MB/s
            }
        });
        const SignalStorm storm;
        EXPECT_EQ(streamWriteNByte(bytes.data(), kLarge, sockets.ends[1]), -1);
        EXPECT_EQ(errno, EAGAIN);
        done = true;
        reader.join();
    }
}

/// Runs `write_it` on a stalled socket in a child with a stop hook, sends the stop signal until it ends.
int stop_in_write(const std::function<int(int)>& write_it) {
    Sockets sockets;
    Signposts posts;
    Child child = Child::fork_off([&] {
        struct sigaction action {};
        action.sa_handler = [](int) { kvr::stop_request(); };
        sigaction(SIGTERM, &action, nullptr);
        kvr::stop_set_hook([](kvr::StopPlace place) { _exit(place == kvr::StopPlace::kMidMessage ? kStopped : 1); });
        if (write(posts.write_end(), "W", 1) != 1) {
            return 1;
        }
        return write_it(sockets.ends[1]);
    });
    EXPECT_TRUE(posts.passed('W'));
    return child.result_under(SIGTERM);
}

int g_sock = -1;
int g_result = 0;

TEST(StreamStop, AStalledWriteInAHandlerFails) {
    EXPECT_EQ(stop_in_write([](int sock) {
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
    EXPECT_EQ(stop_in_write([](int /*sock*/) {
                  const Sockets open;
                  char bytes[64] = {};
                  const int length = sizeof(bytes);
                  kvr::stop_request();
                  if (streamWriteNByte(bytes, length, open.ends[1]) != length) {
                      return 1; // the message in hand was not finished
                  }
                  for (;;) {
                      streamWriteNByte(bytes, length, open.ends[1]);
                      streamReadNByte(bytes, length, nullptr, open.ends[0]);
                  }
              }),
              kStopped);
}

} // namespace
