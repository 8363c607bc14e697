// SPDX-License-Identifier: MIT
// Utilities for processes, texts and sockets, on real processes and sockets.
#include "kavutil.h"

#include <arpa/inet.h>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "children.h"
#include "export.h"
#include "stop_point.h"

namespace {

using kvr::test::Child;
using kvr::test::Signposts;

int g_lookup_post = -1;

/// What the scripted resolver answers, and what the host makes of it.
constexpr struct {
    const char* host;
    int code;
    int system_error;
    int expected_errno;
} kLookups[] = {
    {"known.test", 0, 0, 0},
    {"unknown.test", EAI_NONAME, 0, ENXIO},
    {"later.test", EAI_AGAIN, 0, EAGAIN},
    {"system.test", EAI_SYSTEM, EMFILE, EMFILE},
    {"silent.test", EAI_SYSTEM, 0, EIO},
};

} // namespace

// The system's resolver, scripted: names cannot be looked up where tests run, and failures not be had at will.
extern "C" KVR_EXPORT int getaddrinfo(const char* node, const char* /*service*/, const addrinfo* /*hints*/,
                                      addrinfo** result) {
    static sockaddr_in s_address{AF_INET, 0, {htonl(0x0a010203)}, {}};
    static addrinfo s_info{0, AF_INET, SOCK_STREAM, 0, sizeof(s_address), nullptr, nullptr, nullptr};
    s_info.ai_addr = reinterpret_cast<sockaddr*>(&s_address);
    *result = &s_info;
    for (const auto& lookup : kLookups) {
        if (std::strcmp(node, lookup.host) == 0) {
            errno = lookup.system_error;
            return lookup.code;
        }
    }
    [[maybe_unused]] const ssize_t wrote = write(g_lookup_post, "L", 1);
    for (;;) {
        pause();
    }
}

extern "C" KVR_EXPORT void freeaddrinfo(addrinfo* /*info*/) noexcept {}

namespace {

TEST(HostAddress, ResolvesOrTellsWhy) {
    char address[16] = {};
    EXPECT_EQ(sockGetHostIp(const_cast<char*>("255.255.255.255"), address), 0);
    EXPECT_STREQ(address, "255.255.255.255");
    for (const auto& test : kLookups) {
        std::strcpy(address, "as before");
        errno = 0;
        EXPECT_EQ(sockGetHostIp(const_cast<char*>(test.host), address), test.code == 0 ? 0 : -1) << test.host;
        EXPECT_EQ(errno, test.expected_errno) << test.host;
        EXPECT_STREQ(address, test.code == 0 ? "10.1.2.3" : "as before");
    }
    EXPECT_LT(sockGetHostIp(const_cast<char*>(""), address), 0);
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
        sigprocmask(SIG_BLOCK, &held, nullptr);
        char address[16];
        return sockGetHostIp(const_cast<char*>("hangs.test"), address) < 0 ? 1 : 2;
    });
    ASSERT_TRUE(posts.passed('L'));
    EXPECT_EQ(child.result_under(SIGTERM), kStopped);
}

TEST(Text, BaseNameAndUpperCase) {
    const std::string long_name(2000, 'n');
    const std::pair<std::string, std::string> cases[] = {{"/a/b/c.txt", "c.txt"},
                                                         {"c.txt", "c.txt"},
                                                         {"/a/b/", "b"},
                                                         {"", ""},
                                                         {"/d/" + long_name, long_name.substr(0, 1023)}};
    for (const auto& [given, expected] : cases) {
        std::string path = given;
        EXPECT_EQ(strBaseName(path.data()), expected) << given;
        EXPECT_EQ(path, given);
    }
    EXPECT_STREQ(strBaseName(nullptr), "");
    std::string text = "chl.a-z_09\xc3\xa4{`";
    strToUpper(text.data());
    EXPECT_EQ(text, "CHL.A-Z_09\xc3\xa4{`") << "whatever the locale";
}

TEST(Process, ExistsOnlyWhileItRunsAndIsOneToSignal) {
    for (const int pid : {0, -1, -getpid(), INT_MIN, INT_MAX}) {
        EXPECT_EQ(procIsExist(pid), 0) << pid;
        EXPECT_LT(procSndSig2Proc(pid, SIGKILL), 0) << pid;
        EXPECT_EQ(errno, pid == INT_MAX ? ESRCH : EINVAL);
    }
    Child child = Child::fork_off([] { return pause(); });
    const pid_t pid = child.pid();
    EXPECT_EQ(procIsExist(pid), 1);
    EXPECT_EQ(procSndSig2Proc(pid, SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(procIsExist(pid), 0) << "a zombie";
    EXPECT_EQ(child.result(), -SIGKILL);
}

/// Two ends of a TCP connection over the loopback interface.
class Connection : public testing::Test {
  protected:
    Connection() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
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

    /// sockCanRead, once the near end has something to say.
    int can_read_at_last(int sock) const {
        pollfd entry{near_, POLLIN, 0};
        EXPECT_EQ(poll(&entry, 1, 30000), 1);
        return sockCanRead(sock);
    }

    int near_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int far_ = -1;
    int port_ = 0;
};

TEST_F(Connection, IsReadableWithDataOrAtItsEnd) {
    EXPECT_EQ(sockCanRead(near_), 0);
    ASSERT_EQ(send(far_, "x", 1, 0), 1);
    EXPECT_EQ(can_read_at_last(near_), 1);
    // Below the low-water mark data does not count; the end of the stream always does.
    const int mark = 100;
    setsockopt(near_, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof(mark));
    EXPECT_EQ(sockCanRead(near_), 0);
    shutdown(far_, SHUT_WR);
    EXPECT_EQ(can_read_at_last(near_), 1);
}

TEST_F(Connection, IsTestedBeyondTheSizeOfADescriptorSet) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max <= FD_SETSIZE) {
        GTEST_SKIP() << "descriptors are limited to " << limit.rlim_max;
    }
    const rlimit before = std::exchange(limit, {limit.rlim_max, limit.rlim_max});
    setrlimit(RLIMIT_NOFILE, &limit);
    const int high = fcntl(near_, F_DUPFD_CLOEXEC, FD_SETSIZE);
    setrlimit(RLIMIT_NOFILE, &before);
    ASSERT_GE(high, FD_SETSIZE);
    EXPECT_EQ(sockCanRead(high), 0);
    shutdown(far_, SHUT_WR);
    EXPECT_EQ(can_read_at_last(high), 1);
    close(high);
    for (const int closed : {high, -1}) {
        errno = 0;
        EXPECT_LT(sockCanRead(closed), 0);
        EXPECT_EQ(errno, EBADF);
    }
}

TEST_F(Connection, TakesOptionsAndTellsItsAddress) {
    sockSetKeepAlive(near_);
    int on = 0;
    socklen_t length = sizeof(on);
    getsockopt(near_, SOL_SOCKET, SO_KEEPALIVE, &on, &length);
    EXPECT_EQ(on, 1);
    for (const int seconds : {7, 0, 9}) {
        sockSetSTimeOut(near_, seconds);
        sockSetRTimeOut(near_, seconds + 1);
        for (const auto& [option, expected] : {std::pair(SO_SNDTIMEO, seconds), {SO_RCVTIMEO, seconds + 1}}) {
            timeval limit{};
            length = sizeof(limit);
            getsockopt(near_, SOL_SOCKET, option, &limit, &length);
            EXPECT_EQ(limit.tv_sec, expected);
        }
    }
    char address[16] = {};
    int port = 0;
    EXPECT_EQ(sockGetLocalAddr(far_, address, &port), 0);
    EXPECT_STREQ(address, "127.0.0.1");
    EXPECT_EQ(port, port_);
}

} // namespace
