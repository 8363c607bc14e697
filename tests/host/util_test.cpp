// SPDX-License-Identifier: MIT
// Utilities of the host: the look-up of an address, processes.
#include <arpa/inet.h>
#include <climits>
#include <netdb.h>

#include <gmock/gmock.h>

#include "host/children.h"
#include "kavutil.h"
#include "kavutil/export.h"
#include "kavutil/stop_point.h"

namespace {

int g_answer = 0; ///< the resolver's; names cannot be looked up where tests run, and failures not be had at will
int g_error = 0;  ///< errno with it

constexpr int kHangs = INT_MAX;

} // namespace

extern "C" KVR_EXPORT int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** result) {
    static sockaddr_in s_address{AF_INET, 0, {htonl(0x0a010203)}, {}};
    static addrinfo s_info{};
    s_info.ai_addr = reinterpret_cast<sockaddr*>(&s_address);
    *result = &s_info;
    while (g_answer == kHangs) { // and the stop is asked for meanwhile
        kill(getpid(), SIGTERM);
        usleep(1000);
    }
    errno = g_error;
    return g_answer;
}

extern "C" KVR_EXPORT void freeaddrinfo(addrinfo*) noexcept {}

namespace {

using kvr::test::Child;

TEST(HostAddress, ResolvesOrTellsWhy) {
    const std::string none = "host[name.test] has no IPv4 address that can be found: ";
    const std::tuple<int, int, int, const char*> cases[] = {
        {0, 0, 0, ""},
        {EAI_NONAME, 0, ENXIO, "Name or service not known"},
        {EAI_AGAIN, 0, EAGAIN, "Temporary failure in name resolution"},
        {EAI_SYSTEM, EMFILE, EMFILE, "Too many open files"},
        {EAI_SYSTEM, 0, EIO, "Input/output error"}};
    for (const auto& [code, error, expected, reason] : cases) {
        g_answer = code;
        g_error = error;
        char name[] = "name.test";
        char address[16] = "as before";
        testing::internal::CaptureStderr();
        errno = 0;
        EXPECT_EQ(sockGetHostIp(name, address), code == 0 ? 0 : -1);
        EXPECT_EQ(errno, expected);
        EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(code == 0 ? "" : none + reason));
        EXPECT_STREQ(address, code == 0 ? "10.1.2.3" : "as before");
    }
}

TEST(HostAddress, StopsDuringALookUpThatHangs) {
    g_answer = kHangs;
    Child child = Child::fork_off([] {
        std::signal(SIGTERM, [](int) { kvr::stop_request(); });
        kvr::stop_set_hook([](kvr::StopPlace place) { _exit(place == kvr::StopPlace::kMidMessage ? 42 : 1); });
        // The channel holds its signals while it connects; that must not hold up a stop.
        kvr::test::mask_signal(SIG_BLOCK, SIGUSR2);
        char name[] = "name.test";
        return sockGetHostIp(name, name);
    });
    EXPECT_EQ(child.result(), 42);
}

TEST(Process, ExistsOnlyWhileItRunsAndIsOneToSignal) {
    for (const int pid : {0, -1, -getpid(), INT_MIN, INT_MAX}) {
        EXPECT_EQ(procIsExist(pid), 0) << pid;
        EXPECT_LT(procSndSig2Proc(pid, SIGKILL), 0) << pid;
        EXPECT_EQ(errno, pid == INT_MAX ? ESRCH : EINVAL);
    }
    Child child = Child::fork_off([] { return pause(); });
    EXPECT_EQ(procIsExist(child.pid()), 1);
    EXPECT_EQ(procSndSig2Proc(child.pid(), SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(procIsExist(child.pid()), 0) << "a zombie";
    EXPECT_EQ(child.result(), -SIGKILL);
}

} // namespace
