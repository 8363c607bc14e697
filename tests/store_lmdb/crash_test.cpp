// SPDX-License-Identifier: MIT
// The embedded engine when a process dies half-way or the disk fails: what the mark of a queue tells, and what it must
// not be taken for.
#include "stopped_call.h"
#include "store/store_fixture.h"
#include "store_lmdb/mark_file.h"

namespace kvr {
namespace {

using CrashTest = StoreTest;
namespace fs = std::filesystem;

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

TEST_F(CrashTest, AGroupStaysWithinItsBytes) {
    for (int i = 0; i < 5; ++i) {
        put(std::string(2000000, 'x'));
    }
    const auto drain = [&] {
        const auto getter = store_->drain("Q");
        for (int i = 0; i < 5; ++i) {
            take(*getter);
        }
        return ::raise(SIGKILL);
    };
    EXPECT_EQ(fork_user(drain).result(), -SIGKILL);
    store_.reset();
    fs::remove_all(dir_ / "queues");
    fs::create_directory(dir_ / "queues");
    fs::permissions(dir_ / "queues", fs::perms::owner_all);
    store_ = Store::open(dir_);
    EXPECT_EQ(shown().size(), 1U) << "with the fifth in hand the first four are deleted, or the group would pass 8 MiB";
}

TEST_F(CrashTest, WhatAKilledDrainerUsedIsPassedOverOnAFullDisk) {
    put_numbers(1, 6);
    const auto drain = [&] {
        const auto getter = store_->drain("Q");
        take(*getter);
        getter->hold("test");
        take(*getter);
        take(*getter);
        return ::raise(SIGKILL); // "2" is used, "3" in hand
    };
    EXPECT_EQ(fork_user(drain).result(), -SIGKILL);
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
    put_numbers(1, 4);
    const auto getter = store_->drain("Q");
    const auto dead_letter = [&] {
        return code_of([&] { return getter->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")}), 0; });
    };
    ASSERT_EQ(take(*getter), "1");
    test::fail_calls(EIO);
    const Errc dead = dead_letter();
    const Errc next = code_of([&] { return take(*getter); });
    const Errc commit = code_of([&] { return getter->commit(), 0; });
    test::fail_calls(0);
    EXPECT_EQ(dead, Errc::kIo);
    EXPECT_EQ(next, Errc::kHeld);
    EXPECT_EQ(commit, Errc::kHeld);
    EXPECT_EQ(shown(), (Texts{"1*", "2", "3", "4"}));
    EXPECT_EQ(take(*getter), "2") << "held as soon as it can be";
    EXPECT_EQ(shown(), (Texts{"1!", "2*", "3", "4"}));
    test::fail_after_next_head();
    EXPECT_EQ(dead_letter(), Errc::kIo);
    test::fail_calls(0);
    EXPECT_EQ(take(*getter), "3");
    EXPECT_EQ(shown(), (Texts{"1!", "3*", "4"})) << "what is on the other queue after all is not held";
    EXPECT_EQ(shown("DEAD"), Texts{"dead"});
    test::fail_calls(EIO);
    dead_letter();
    test::fail_calls(0);
    EXPECT_EQ(dead_letter(), Errc{}) << "the second try succeeds";
    EXPECT_EQ(take(*getter), "4");
    EXPECT_EQ(take(*getter), "-") << "what came after it is used up, not held";
}

TEST_F(CrashTest, AMarkMadeSinceABackupSaysNothingOfALaterQueue) {
    const fs::path file = dir_ / "store" / "data.mdb";
    const fs::path backup = folder_.path() / "backup";
    store_.reset();
    fs::copy_file(file, backup);
    store_ = Store::open(dir_);
    store_->queue_define("NEW", "");
    put("told", {}, "NEW");
    const auto drain = [&] {
        const auto getter = store_->drain("NEW");
        take(*getter);
        take(*getter);
        return ::raise(SIGKILL);
    };
    EXPECT_EQ(fork_user(drain).result(), -SIGKILL);
    store_.reset();
    fs::copy_file(backup, file, fs::copy_options::overwrite_existing);
    store_ = Store::open(dir_);
    store_->queue_define("NEW", "");
    put("told", {}, "NEW");
    EXPECT_EQ(take_all("NEW"), Texts{"told"});
}

TEST_F(CrashTest, MarkOfAnotherGenerationQueueOrStoreSaysNothing) {
    const fs::path file = folder_.path() / "mark";
    MarkFile mark(file, 7, 1);
    EXPECT_TRUE(mark.used(0).empty()) << "a fresh file is nobody's mark";
    mark.begin_group(5);
    EXPECT_TRUE(mark.used(5).empty());
    mark.set_used({.first = 10, .through = 12});
    EXPECT_TRUE(mark.used(5).contains(10) && mark.used(5).contains(12));
    EXPECT_FALSE(mark.used(5).contains(9) || mark.used(5).contains(13));
    EXPECT_TRUE(mark.used(4).empty() && mark.used(6).empty()) << "6: the group was deleted, the mark not yet moved";
    EXPECT_TRUE(MarkFile(file, 7, 2).used(5).empty() && MarkFile(file, 8, 1).used(5).empty());
    EXPECT_EQ(MarkFile(file, 7, 1).used(5).through, 12U) << "another process sees it";
    mark.begin_group(6);
    EXPECT_TRUE(mark.used(6).empty());
}

} // namespace
} // namespace kvr
