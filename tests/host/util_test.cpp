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

#include <gmock/gmock.h>

#include "children.h"
#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

using kvr::test::Child;
using testing::HasSubstr;

/// What the scripted resolver answers, and what the host makes of it.
constexpr struct {
    const char* host;
    int code;
    int system_error;
    int expected_errno;
    const char* logged;
} kLookups[] = {
    {"known.test", 0, 0, 0, ""},
    {"unknown.test", EAI_NONAME, 0, ENXIO, "host[unknown.test] has no IPv4 address that can be found: Name or service"},
    {"later.test", EAI_AGAIN, 0, EAGAIN, "host[later.test] has no IPv4 address that can be found: Temporary failure"},
    {"system.test", EAI_SYSTEM, EMFILE, EMFILE, "Too many open files"},
    {"silent.test", EAI_SYSTEM, 0, EIO, "Input/output error"},
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
    for (;;) { // hangs, and the stop is asked for meanwhile
        kill(getpid(), SIGTERM);
        usleep(1000);
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
        testing::internal::CaptureStderr();
        errno = 0;
        EXPECT_EQ(sockGetHostIp(const_cast<char*>(test.host), address), test.code == 0 ? 0 : -1) << test.host;
        EXPECT_EQ(errno, test.expected_errno) << test.host;
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(test.logged));
        EXPECT_STREQ(address, test.code == 0 ? "10.1.2.3" : "as before");
    }
    EXPECT_LT(sockGetHostIp(const_cast<char*>(""), address), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST(HostAddress, StopsDuringALookUpThatHangs) {
    constexpr int kStopped = 42;
    Child child = Child::fork_off([] {
        std::signal(SIGTERM, [](int) { kvr::stop_request(); });
        kvr::stop_set_hook([](kvr::StopPlace place) { _exit(place == kvr::StopPlace::kMidMessage ? kStopped : 1); });
        // The channel holds its signals while it connects; that must not hold up a stop.
        kvr::test::mask_signal(SIG_BLOCK, SIGUSR2);
        char address[16];
        return sockGetHostIp(const_cast<char*>("hangs.test"), address);
    });
    EXPECT_EQ(child.result(), kStopped);
}

TEST(Text, BaseNameIsBoundedAndUpperCaseIsOfNoLocale) {
    std::string path = "/d/" + std::string(2000, 'n') + "/";
    EXPECT_EQ(strBaseName(path.data()), std::string(1023, 'n'));
    EXPECT_STREQ(strBaseName(nullptr), "");
    std::string text = "chl.a-z_09\xc3\xa4{`";
    strToUpper(text.data());
    EXPECT_EQ(text, "CHL.A-Z_09\xc3\xa4{`");
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

TEST(Socket, IsReadableWithDataOrAtItsEndBeyondTheSizeOfADescriptorSetToo) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int high = fcntl(ends[0], F_DUPFD_CLOEXEC, FD_SETSIZE);
    if (high < 0) {
        GTEST_SKIP() << "descriptors are limited to " << limit.rlim_max;
    }
    EXPECT_EQ(sockCanRead(high), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(sockCanRead(high), 1);
    char byte = 0;
    ASSERT_EQ(read(high, &byte, 1), 1);
    close(ends[1]);
    EXPECT_EQ(sockCanRead(high), 1) << "the end of the stream";
    close(ends[0]);
    close(high);
    EXPECT_LT(sockCanRead(high), 0);
}

} // namespace
