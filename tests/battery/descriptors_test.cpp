// SPDX-License-Identifier: MIT
// Processes that inherit too few descriptors or too many: no connection on a standard descriptor, nothing written
// outside a set, and where it cannot work a refusal that says so.
#include <sys/resource.h>

#include "under_shell.h"

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

INSTANTIATE_TEST_SUITE_P(Carriers, Descriptors, ::testing::Values(Carrier::kPlain, Carrier::kTls13),
                         [](const auto& tested) { return std::string(carrier_name(tested.param)); });

TEST_P(Descriptors, AWorkerStartedWithoutStandardOnesNeverUsesThemForItsLine) {
    Child listener = field_.listen();
    for (int closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closing(closed));
        Child worker = run_channel_after(field_, closing(closed));
        field_.put_one_of_each();
        field_.await_arrived(field_.ledger().size());
        field_.await_status("RUNING");
        EXPECT_EQ(bad_standard_descriptors(worker.pid()), "");
        const auto watchers = children_of(worker.pid());
        ASSERT_EQ(watchers.size(), 1U);
        EXPECT_EQ(bad_standard_descriptors(watchers.front()), "");
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
    }
    field_.await_arrived(field_.ledger().size());
    field_.expect_all_delivered();
}

TEST_P(Descriptors, AListenerStartedWithoutStandardOnesTakesMessages) {
    {
        Child first = field_.listen(); // picks the port
    }
    std::vector<std::string> arguments{"--qmgr",
                                       kReceiver,
                                       "listen",
                                       "--bind",
                                       "127.0.0.1",
                                       "--port",
                                       std::to_string(field_.port()),
                                       "--spool",
                                       (field_.home() / "spool").native()};
    if (GetParam() != Carrier::kPlain) {
        const TlsMaterial& tls = tls_material();
        arguments.insert(arguments.end(),
                         {"--tls", "--cert", tls.server.cert_file, "--key", tls.server.key_file, "--ca", tls.ca_file});
    }
    for (const int closed : {1, 2, 4, 7}) {
        SCOPED_TRACE(closing(closed));
        Child listener = start_after(field_, closing(closed), arguments);
        Child worker = field_.run_channel();
        field_.put_one_of_each();
        field_.await_arrived(field_.ledger().size());
        EXPECT_EQ(bad_standard_descriptors(listener.pid()), "");
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
        kill(listener.pid(), SIGTERM); // once: a second one may meet its end
        EXPECT_EQ(listener.result(), 0);
    }
    field_.expect_all_delivered();
}

// The line watcher waits with select, which knows 1,024 descriptors.
TEST_P(Descriptors, AWorkerWithManyOpenWorksOrRefuses) {
    rlimit limit{};
    constexpr rlim_t kEnough = 4096;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < kEnough) {
        GTEST_SKIP() << "descriptors are limited to " << limit.rlim_max;
    }
    Child listener = field_.listen();
    int worked = 0;
    int refused = 0;
    for (const int open : {900, 985, 990, 995, 1000, 1005, 1010, 1014, 1100}) {
        SCOPED_TRACE(open);
        const std::string refusal = "pipe error[24:Too many open files]";
        const std::size_t refusals = field_.logged(refusal); // before the worker, which may refuse at once
        Child worker = run_channel_after(field_, "ulimit -n 4096; for ((i = 10; i < " + std::to_string(10 + open) +
                                                     "; ++i)); do eval \"exec $i</dev/null\"; done; exec");
        field_.put_one_of_each();
        await("the end of the worker or of the queue",
              [&] { return field_.logged(refusal) > refusals || field_.depth() == 0; });
        if (field_.depth() == 0) {
            ++worked;
            field_.await_arrived(field_.ledger().size());
            EXPECT_EQ(worker.result_under(SIGTERM), 0);
        } else {
            ++refused;
            EXPECT_EQ(worker.result(), 1);
            EXPECT_EQ(field_.status(), "STOPED");
        }
    }
    EXPECT_GE(worked, 1);
    EXPECT_GE(refused, 1);
    RecordProperty("starts that worked", std::to_string(worked));
    RecordProperty("starts refused", std::to_string(refused));
    Child worker = field_.run_channel();
    field_.await_drained();
    field_.await_arrived(field_.ledger().size());
    field_.expect_all_delivered();
}

} // namespace
} // namespace kvr::test
