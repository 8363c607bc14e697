// SPDX-License-Identifier: MIT
// Processes that inherit too few descriptors or too many: no connection on a standard descriptor, nothing written
// outside a set.
#include <sys/resource.h>

#include "field.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

/// Descriptors 0 to 2 of a process that are sockets, or missing.
std::string bad_standard_descriptors(pid_t pid) {
    std::string bad;
    for (const char* fd : {"0", "1", "2"}) {
        std::error_code missing;
        const fs::path target = fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd, missing);
        if (missing || target.native().starts_with("socket:") ||
            target.native().find("data.mdb") != std::string::npos) {
            bad += std::string(fd) + " is " + (missing ? "closed" : target.native()) + "; ";
        }
    }
    return bad;
}

/// What closes the descriptors in the bits of `closed`.
std::string closing(int closed) {
    std::string prelude = "exec";
    for (int fd = 0; fd <= 2; ++fd) {
        if ((closed & (1 << fd)) != 0) {
            prelude += " " + std::to_string(fd) + ">&-";
        }
    }
    return prelude + "; exec";
}

class Descriptors : public ::testing::TestWithParam<Carrier> {
  protected:
    Descriptors() : field_(GetParam()) {}
    Field field_;
};

INSTANTIATE_TEST_SUITE_P(Carriers, Descriptors, kPlainAndTls, name_of_carrier);

TEST_P(Descriptors, WhoIsStartedWithoutStandardOnesNeverUsesThemForALine) {
    for (int closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closing(closed));
        field_.set_prelude(closing(closed));
        Child listener = field_.listen();
        Child worker = field_.run_channel();
        field_.put_one_of_each();
        field_.await_arrived(field_.ledger().size());
        field_.await_status("RUNING");
        const auto watchers = children_of(worker.pid());
        ASSERT_EQ(watchers.size(), 1U);
        for (const pid_t pid : {listener.pid(), worker.pid(), watchers.front()}) {
            EXPECT_EQ(bad_standard_descriptors(pid), "");
        }
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
        EXPECT_EQ(end_listener(listener), 0);
    }
    field_.expect_all_delivered();
}

// The line watcher waits with select, which knows 1,024 descriptors: here the socket, the pipe or both lie beyond.
TEST_P(Descriptors, AWorkerWithManyOpenWorksAndNoticesALostLine) {
    rlimit limit{};
    constexpr rlim_t kEnough = 4096;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < kEnough) {
        GTEST_SKIP() << "descriptors are limited to " << limit.rlim_max;
    }
    for (const int open : {985, 1010, 1011, 1012, 1013, 1014, 1100}) {
        SCOPED_TRACE(open);
        std::optional<Child> listener(field_.listen());
        field_.set_prelude("ulimit -n 4096; for ((i = 10; i < " + std::to_string(10 + open) +
                           "; ++i)); do eval \"exec $i</dev/null\"; done; exec");
        Child worker = field_.run_channel();
        field_.set_prelude("");
        field_.put_one_of_each();
        field_.await_all();
        const std::size_t losses = field_.logged("line disconnected [0]");
        listener.reset();
        await("the notice of the loss", [&] { return field_.logged("line disconnected [0]") > losses; });
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
    }
    field_.expect_all_delivered();
}

} // namespace
} // namespace kvr::test
