// SPDX-License-Identifier: MIT
// Utilities for processes, texts and sockets, on real processes and sockets.
#include "kavutil.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "children.h"
#include "export.h"
#include "stop_point.h"

namespace {

using kvr::test::Child;
using kvr::test::Signposts;

int g_lookup_post = -1;

struct Resolution {
    const char* host;
    int code;
    int system_error;
    int expected_errno;
};

constexpr Resolution kFailures[] = {
    {"unknown.test", EAI_NONAME, 0, ENXIO},
    {"later.test", EAI_AGAIN, 0, EAGAIN},
    {"system.test", EAI_SYSTEM, EMFILE, EMFILE},
    {"silent.test", EAI_SYSTEM, 0, EIO},
};

} // namespace

// The system's resolver, scripted: names cannot be looked up where tests run, and failures not be had at will.
extern "C" KVR_EXPORT int getaddrinfo(const char* node, const char* /*service*/, const addrinfo* /*hints*/,
                                      addrinfo** result) {
    static sockaddr_in s_address{};
    static addrinfo s_info{};
    if (std::strcmp(node, "hangs.test") == 0) {
        [[maybe_unused]] const ssize_t wrote = write(g_lookup_post, "L", 1);
        for (;;) {
            pause();
        }
    }
    for (const Resolution& failure : kFailures) {
        if (std::strcmp(node, failure.host) == 0) {
            errno = failure.system_error;
            return failure.code;
        }
    }
    s_address.sin_family = AF_INET;
    s_address.sin_addr.s_addr = htonl(0x0a010203);
    s_info.ai_addr = reinterpret_cast<sockaddr*>(&s_address);
    s_info.ai_addrlen = sizeof(s_address);
    *result = &s_info;
    return 0;
}

extern "C" KVR_EXPORT void freeaddrinfo(addrinfo* /*info*/) noexcept {}

namespace {

TEST(Text, BaseName) {
    const std::string long_name(2000, 'n');
    const struct {
        std::string path;
        std::string expected;
    } cases[] = {
        {"/a/b/c.txt", "c.txt"},
        {"c.txt", "c.txt"},
        {"/a/b/", "b"},
        {"", ""},
        {"/d/" + long_name, long_name.substr(0, 1023)},
    };
    for (const auto& test : cases) {
        std::string path = test.path;
        EXPECT_EQ(strBaseName(path.data()), test.expected) << test.path;
        EXPECT_EQ(path, test.path);
    }
    EXPECT_STREQ(strBaseName(nullptr), "");
}

TEST(Text, UpperCaseIsAsciiOnly) {
    std::string text = "chl.a-z_09\xc3\xa4{`";
    strToUpper(text.data());
    EXPECT_EQ(text, "CHL.A-Z_09\xc3\xa4{`");
}

TEST(Process, ExistsOnlyWhileItRunsAndIsOneToSignal) {
    EXPECT_EQ(procIsExist(getpid()), 1);
    for (const int pid : {0, -1, -getpid(), INT_MIN, INT_MAX}) {
        EXPECT_EQ(procIsExist(pid), 0) << pid;
        EXPECT_LT(procSndSig2Proc(pid, SIGKILL), 0) << pid;
        EXPECT_EQ(errno, pid == INT_MAX ? ESRCH : EINVAL);
    }
    Child child = Child::fork_off([] {
        pause();
        return 0;
    });
    const pid_t pid = child.pid();
    EXPECT_EQ(procIsExist(pid), 1);
    EXPECT_EQ(procSndSig2Proc(pid, SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(procIsExist(pid), 0) << "a zombie";
    EXPECT_EQ(child.result(), -SIGKILL);
    EXPECT_EQ(procIsExist(pid), 0);
}

/// Two ends of a TCP connection over the loopback interface.
class Connection : public testing::Test {
  protected:
    Connection() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        EXPECT_EQ(connect(near_, reinterpret_cast<sockaddr*>(&address), length), 0);
        far_ = accept(listener, nullptr, nullptr);
        port_ = ntohs(address.sin_port);
        close(listener);
    }
    ~Connection() override {
        close(near_);
        close(far_);
    }

    /// Waits until the near end has something to say.
    void await_event() const {
        pollfd entry{near_, POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, 30000), 1);
    }

    int near_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int far_ = -1;
    int port_ = 0;
};

TEST_F(Connection, IsReadableWithDataOrAtItsEnd) {
    EXPECT_EQ(sockCanRead(near_), 0);
    ASSERT_EQ(send(far_, "x", 1, 0), 1);
    await_event();
    EXPECT_EQ(sockCanRead(near_), 1);

    // Below the low-water mark data does not count; the end of the stream always does.
    const int mark = 100;
    setsockopt(near_, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof(mark));
    EXPECT_EQ(sockCanRead(near_), 0);
    shutdown(far_, SHUT_WR);
    await_event();
    EXPECT_EQ(sockCanRead(near_), 1);
}

TEST_F(Connection, IsTestedBeyondTheSizeOfADescriptorSet) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max <= FD_SETSIZE) {
        GTEST_SKIP() << "descriptors are limited to " << limit.rlim_max;
    }
    const rlimit before = limit;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int high = fcntl(near_, F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(high, FD_SETSIZE);
    EXPECT_EQ(sockCanRead(high), 0);
    shutdown(far_, SHUT_WR);
    await_event();
    EXPECT_EQ(sockCanRead(high), 1);
    close(high);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_LT(sockCanRead(high), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LT(sockCanRead(-1), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Connection, TakesOptionsAndTellsItsAddress) {
    sockSetKeepAlive(near_);
    int on = 0;
    socklen_t length = sizeof(on);
    getsockopt(near_, SOL_SOCKET, SO_KEEPALIVE, &on, &length);
    EXPECT_EQ(on, 1);

    timeval limit{};
    length = sizeof(limit);
    for (const auto& [seconds, expected] : {std::pair(7, 7), std::pair(0, 0), std::pair(9, 9), std::pair(-5, 0)}) {
        sockSetSTimeOut(near_, seconds);
        getsockopt(near_, SOL_SOCKET, SO_SNDTIMEO, &limit, &length);
        EXPECT_EQ(limit.tv_sec, expected);
        sockSetRTimeOut(near_, seconds);
        getsockopt(near_, SOL_SOCKET, SO_RCVTIMEO, &limit, &length);
        EXPECT_EQ(limit.tv_sec, expected);
    }

    char address[16] = {};
    int port = 0;
    EXPECT_EQ(sockGetLocalAddr(far_, address, &port), 0);
    EXPECT_STREQ(address, "127.0.0.1");
    EXPECT_EQ(port, port_);
}

TEST(HostAddress, ResolvesOrTellsWhy) {
    for (const auto& [name, expected] : {std::pair("255.255.255.255", "255.255.255.255"), {"known.test", "10.1.2.3"}}) {
        std::string host = name;
        char address[16] = {};
        EXPECT_GE(sockGetHostIp(host.data(), address), 0) << host;
        EXPECT_STREQ(address, expected);
    }
    for (const Resolution& test : kFailures) {
        std::string host = test.host;
        char address[16] = "as before";
        errno = 0;
        EXPECT_LT(sockGetHostIp(host.data(), address), 0) << host;
        EXPECT_EQ(errno, test.expected_errno) << host;
        EXPECT_STREQ(address, "as before");
    }
    char empty[] = "";
    char address[16];
    EXPECT_LT(sockGetHostIp(empty, address), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST(HostAddress, StopsDuringALookUpThatHangs) {
    constexpr int kStopped = 42;
    Signposts posts;
    Child child = Child::fork_off([&] {
        g_lookup_post = posts.write_end();
        struct sigaction action {};
        action.sa_handler = [](int) { kvr::stop_request(); };
        sigaction(SIGTERM, &action, nullptr);
        kvr::stop_set_hook([](kvr::StopPlace place) { _exit(place == kvr::StopPlace::kMidMessage ? kStopped : 1); });
        // The channel holds its signals while it connects; that must not hold up a stop.
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGUSR2);
        sigaddset(&held, SIGALRM);
        sigprocmask(SIG_BLOCK, &held, nullptr);
        char host[] = "hangs.test";
        char address[16];
        return sockGetHostIp(host, address) < 0 ? 1 : 2;
    });
    ASSERT_TRUE(posts.passed('L'));
    EXPECT_EQ(child.result_under(SIGTERM), kStopped);
}

} // namespace
