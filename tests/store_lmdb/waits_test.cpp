// SPDX-License-Identifier: MIT
// Processes that are in each other's way in the embedded engine: who is frozen is named, and who waits for it tells so,
// gives up in time, or goes on.
#include <fcntl.h>
#include <lmdb.h>

#include "file_calls.h"
#include "store/store_fixture.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

std::vector<std::string> g_notices;

class WaitsTest : public StoreTest {
  protected:
    ~WaitsTest() override { limit_waits(test::kDeadline); }
    /// The text of the error of a put, empty for none.
    std::string fault_of_put(const std::string& text) {
        std::string fault;
        code_of([&] { put_all({text}); }, &fault);
        return fault;
    }
    /// A process that is stopped in the middle of its write of "first".
    test::Child frozen_writer() {
        test::Child writer = fork_user([&] {
            test::stop_at_next_call(0);
            return fault_of_put("first").empty() ? 0 : 1;
        });
        test::await_stopped(writer);
        return writer;
    }
};

TEST_F(WaitsTest, AFrozenWriterIsNamedAndWaitsForItEnd) {
    test::Child next = fork_user([&] { // waits as well, and is not to blame
        ::raise(SIGSTOP);
        return fault_of_put("next").empty() ? 0 : 1;
    });
    test::await_stopped(next);
    test::Child writer = frozen_writer();
    ::kill(next.pid(), SIGCONT);
    test::await_call(next, {SYS_clock_nanosleep});
    const std::string name = "waiting for process " + std::to_string(writer.pid()) + ",";
    set_notice([](const std::string& line) { g_notices.push_back(line); });
    limit_waits(milliseconds(4500));
    EXPECT_THAT(fault_of_put("second"), HasSubstr(name));
    EXPECT_THAT(g_notices, testing::ElementsAre(StartsWith(name), StartsWith("for 4 s " + name)));
    set_notice(nullptr);
    EXPECT_EQ(store_->frozen_writer(), local_owner(writer.pid()));
    limit_waits(test::kDeadline);
    ::kill(writer.pid(), SIGCONT);
    EXPECT_EQ(fault_of_put("third"), "");
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(next.result(), 0);
    EXPECT_THAT(shown(), testing::UnorderedElementsAre("first", "next", "third"));
}

TEST_F(WaitsTest, AStopThatWasSeenCountsOnAndLeavesEachWaitAMoment) {
    const test::Child writer = frozen_writer();
    test::Child stopped = fork_user([&] {
        std::signal(SIGTERM, [](int) {});
        test::mask_signal(SIG_BLOCK, SIGTERM);
        ::raise(SIGTERM);
        const bool gave_up = !fault_of_put("second").empty();
        test::mask_signal(SIG_UNBLOCK, SIGTERM); // which takes it
        const auto since = std::chrono::steady_clock::now();
        const bool again = !fault_of_put("third").empty();
        return gave_up && again && std::chrono::steady_clock::now() - since >= milliseconds(50) ? 0 : 1;
    });
    EXPECT_EQ(stopped.result(), 0);
}

TEST_F(WaitsTest, WhoReadsAlreadyGoesOnBesideAFrozenOpenerAndOthersGiveUp) {
    const test::Child frozen = test::Child::fork_off([&] {
        const int fd = ::open((dir_ / "store" / "open.lock").c_str(), O_RDWR);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        return ::fcntl(fd, F_OFD_SETLK, &lock) == 0 ? ::raise(SIGSTOP) : 1;
    });
    test::await_stopped(frozen);
    limit_waits(milliseconds(100));
    EXPECT_EQ(put("x"), Errc{});
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(shown(), Texts{"x"});
        store_->queue_define("R", "");
        const auto other = store_->drain("R"); // has the second place that the process keeps
        EXPECT_CODE(kBusy, shown());
        EXPECT_EQ(take(*getter), "x");
    }
    EXPECT_EQ(shown(), Texts{"x"});
}

TEST_F(WaitsTest, AFrozenReaderThatKeepsAllRoomIsNamed) {
    make_store({{"quota", "2097152"}, {"map_size", "4194304"}});
    test::Child reader = test::Child::fork_off([&] {
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        const bool reads = mdb_env_create(&env) == 0 &&
                           mdb_env_open(env, (dir_ / "store").c_str(), MDB_RDONLY, 0600) == 0 &&
                           mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) == 0;
        return reads ? ::raise(SIGSTOP) : 1;
    });
    test::await_stopped(reader);
    std::string fault;
    for (int i = 0; i < 100 && fault.empty(); ++i) {
        fault = fault_of_put(std::string(100000, 'x'));
        take_all();
    }
    EXPECT_THAT(fault, HasSubstr("process " + std::to_string(reader.pid()) + " "));
    ::kill(reader.pid(), SIGKILL);
    EXPECT_EQ(reader.result(), -SIGKILL);
    EXPECT_EQ(fault_of_put(std::string(100000, 'x')), "");
}

TEST_F(WaitsTest, ADrainerInAnotherPidNamespaceIsSeen) {
    const auto getter = store_->drain("Q");
    test::Child elsewhere = test::Child::fork_off([&] {
        const auto look = [&] {
            const bool seen = store_->queue_info("Q").drained_by == local_owner(kUnseenProcess);
            return seen && code_of([&] { return store_->drain("Q"); }) == Errc::kBusy ? 0 : 1;
        };
        return ::unshare(CLONE_NEWPID) != 0 ? 0 : fork_user(look).result(); // not allowed to every test
    });
    EXPECT_EQ(elsewhere.result(), 0);
}

} // namespace
} // namespace kvr
