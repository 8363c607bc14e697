// SPDX-License-Identifier: MIT
// The embedded engine when a process dies half-way or the disk fails: what the mark of a queue tells, and what it must
// not be taken for.
#include <fcntl.h>

#include "file_calls.h"
#include "store/store_fixture.h"
#include "store_lmdb/mark_file.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

class CrashTest : public StoreTest {
  protected:
    /// A drainer takes so many messages and is killed.
    void kill_a_drainer(int takes, const std::string& queue = "Q") {
        const auto drain = [&] {
            const auto getter = store_->drain(queue);
            for (int i = 0; i < takes; ++i) {
                take(*getter);
            }
            return ::raise(SIGKILL);
        };
        EXPECT_EQ(fork_user(drain).result(), -SIGKILL);
    }
};

TEST_F(CrashTest, OpenerThatDiesOrFailsHalfWayLosesNothing) {
    for (const bool dies : {true, false}) {
        store_.reset(); // the first opener of all sets up what they share
        test::Child opener = test::Child::fork_off([&] {
            test::stop_at_next_call(EIO);
            return code_of([&] { return Store::open(dir_); }) == Errc::kIo ? 1 : 0;
        });
        test::await_stopped(opener);
        test::Child putter = fork_user([&] { return put("told") == Errc{} ? 0 : 1; });
        test::await_call(putter, {SYS_fcntl, SYS_clock_nanosleep}); // its turn to open
        ::kill(opener.pid(), dies ? SIGKILL : SIGCONT);
        EXPECT_EQ(opener.result(), dies ? -SIGKILL : 1);
        EXPECT_EQ(putter.result(), 0);
        store_ = Store::open(dir_);
        EXPECT_EQ(take_all(), Texts{"told"}) << dies;
    }
}

TEST_F(CrashTest, ADrainerKilledInTheDeleteOfItsGroupRepeatsNothing) {
    put_all({"1", "2"});
    test::Child drainer = fork_user([&] {
        const auto getter = store_->drain("Q");
        take(*getter);
        test::stop_at_next_call(0);
        return getter->commit(), 0;
    });
    test::await_stopped(drainer);
    ::kill(drainer.pid(), SIGKILL);
    EXPECT_EQ(drainer.result(), -SIGKILL);
    EXPECT_EQ(shown(), Texts{"2"});
    EXPECT_EQ(take_all(), Texts{"2"});
}

TEST_F(CrashTest, AGroupStaysWithinItsBytesAndItsCount) {
    for (const auto& [count, text] : {std::pair(5, std::string(2000000, 'x')), {513, std::string("x")}}) {
        make_store({});
        put_all(Texts(static_cast<std::size_t>(count), text));
        kill_a_drainer(count);
        store_.reset();
        for (const auto& mark : fs::directory_iterator(dir_ / "queues")) {
            fs::remove(mark);
        }
        store_ = Store::open(dir_);
        EXPECT_EQ(shown().size(), 1U) << "the last would have passed 8 MiB, or 512: what came before it is deleted";
    }
}

TEST_F(CrashTest, WhatAKilledDrainerUsedIsPassedOverOnAFullDisk) {
    put_all({"1", "2", "3", "4", "5", "6"});
    {
        const auto getter = store_->drain("Q");
        take(*getter);
        getter->hold("test");
    }
    kill_a_drainer(2); // "2" is used, "3" in hand
    EXPECT_EQ(store_->release_held("Q"), 1U);
    test::fail_calls(ENOSPC);
    const auto getter = store_->drain("Q");
    Texts taken{take(*getter), take(*getter)};
    test::fail_calls(0);
    for (int i = 0; i < 4; ++i) {
        taken.push_back(take(*getter));
    }
    EXPECT_EQ(taken, (Texts{"3", "4", "5", "6", "1", "-"}));
}

TEST_F(CrashTest, MessageThatCannotBeHeldIsNotUsedUp) {
    put_all({"1", "2", "3", "4"});
    const auto getter = store_->drain("Q");
    const auto dead_letter = [&](int error) {
        test::fail_calls(error);
        return code_of([&] { getter->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")}); });
    };
    ASSERT_EQ(take(*getter), "1");
    const Errc codes[] = {dead_letter(EIO), code_of([&] { return take(*getter); }), code_of([&] { getter->commit(); })};
    test::fail_calls(0);
    EXPECT_THAT(codes, testing::ElementsAre(Errc::kIo, Errc::kHeld, Errc::kHeld));
    EXPECT_EQ(shown(), (Texts{"1*", "2", "3", "4"}));
    EXPECT_EQ(take(*getter), "2") << "held as soon as it can be";
    EXPECT_EQ(shown(), (Texts{"1!", "2*", "3", "4"}));
    EXPECT_EQ(dead_letter(EIO), Errc::kIo);
    EXPECT_EQ(dead_letter(0), Errc{}) << "what succeeds after all ...";
    EXPECT_EQ(take(*getter), "3");
    EXPECT_EQ(take(*getter), "4") << "... holds nothing that comes after it";
    EXPECT_EQ(shown(), (Texts{"1!", "4*"}));
    test::g_file_call = [](int /*fd*/, off_t at, const test::FileCall& call) {
        if (at >= test::kEndOfHeads) {
            return call();
        }
        call(); // the head is written, and neither that nor anything else succeeds any more
        test::fail_calls(EIO);
        return ssize_t{-1};
    };
    EXPECT_EQ(code_of([&] { getter->put_instead("DEAD", {&descriptor_, {}, {}}); }), Errc::kIo);
    test::fail_calls(0);
    EXPECT_EQ(take(*getter), "-");
    EXPECT_EQ(shown(), Texts{"1!"});
    EXPECT_EQ(store_->queue_info("Q").held, 1U) << "what is on the other queue after all is not held";
    EXPECT_EQ(shown("DEAD"), (Texts{"dead", ""}));
}

TEST_F(CrashTest, APutIsFlushedAndOnlyTheDeleteOfUsedMessagesIsFlushedLate) {
    store_->change_settings({{"sync", "on"}});
    bool flushed = false;
    test::g_file_call = [&](int fd, off_t at, const test::FileCall& call) {
        flushed = at < test::kEndOfHeads ? (::fcntl(fd, F_GETFL) & O_DSYNC) != 0 : flushed;
        return call();
    };
    const auto getter = store_->drain("Q");
    for (const char* text : {"1", "2"}) {
        put(text);
        EXPECT_TRUE(flushed) << text;
        take(*getter);
        getter->commit();
        EXPECT_FALSE(flushed);
    }
    test::fail_calls(0);
}

TEST_F(CrashTest, AMarkMadeSinceABackupSaysNothingOfALaterQueue) {
    const fs::path file = dir_ / "store" / "data.mdb";
    const fs::path backup = folder_.path() / "backup";
    store_.reset();
    fs::copy_file(file, backup);
    for (const bool restored : {false, true}) {
        store_ = Store::open(dir_);
        store_->queue_define("NEW", "");
        put_all({"1", "2", "3"}, "NEW");
        if (restored) {
            EXPECT_EQ(take_all("NEW"), (Texts{"1", "2", "3"}));
            return;
        }
        kill_a_drainer(3, "NEW");
        store_.reset();
        fs::copy_file(backup, file, fs::copy_options::overwrite_existing);
    }
}

TEST_F(CrashTest, MarkOfAnotherGenerationQueueOrStoreSaysNothing) {
    const fs::path file = folder_.path() / "mark";
    MarkFile mark(file, 7, 1);
    EXPECT_TRUE(mark.used(0).empty()) << "a fresh file is nobody's mark";
    mark.begin_group(5);
    EXPECT_TRUE(mark.used(5).empty());
    mark.set_used({.first = 10, .through = 12});
    EXPECT_EQ(MarkFile(file, 7, 1).used(5).through, 12U) << "another process sees it";
    EXPECT_TRUE(mark.used(4).empty() && mark.used(6).empty()) << "6: the group was deleted, the mark not yet moved";
    EXPECT_TRUE(MarkFile(file, 7, 2).used(5).empty() && MarkFile(file, 8, 1).used(5).empty());
    mark.begin_group(6);
    EXPECT_TRUE(mark.used(6).empty());
}

} // namespace
} // namespace kvr
