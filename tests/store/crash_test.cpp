// SPDX-License-Identifier: MIT
// Processes that are killed at the edges of a group, or while they open the store: nothing is lost, at most the message
// in hand repeats. Kills of running programs are the battery's affair.
#include <random>
#include <thread>

#include "store_lmdb/mark_file.h"
#include "stopped_call.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using CrashTest = StoreTest;

TEST_F(CrashTest, OpenerThatDiesOrFailsHalfWayLosesNothing) {
    for (const bool dies : {true, false}) {
        store_.reset(); // the first opener of all sets up what they share
        test::Child opener = test::Child::fork_off([&] {
            test::stop_at_next_call(EIO);
            return code_of([&] { return Store::open(dir_); }) == Errc::kIo ? 1 : 0;
        });
        test::await_stopped(opener);
        test::Child putter = test::Child::fork_off([&] {
            store_ = Store::open(dir_);
            return put("told") == Errc{} ? 0 : 1;
        });
        test::await_waiting(putter.pid());
        ::kill(opener.pid(), dies ? SIGKILL : SIGCONT);
        EXPECT_EQ(opener.result(), dies ? -SIGKILL : 1);
        EXPECT_EQ(putter.result(), 0);
        store_ = Store::open(dir_);
        EXPECT_EQ(take_all(), Texts{"told"}) << dies;
    }
}

TEST_F(CrashTest, OpenersKilledAtAnyMomentLoseNothing) {
    std::mt19937 random{std::random_device{}()};
    Texts told;
    store_.reset();
    for (int i = 0; i < 100; ++i) {
        test::Child opener = test::Child::fork_off([&] { return Store::open(dir_) ? 0 : 1; });
        test::Child putter = test::Child::fork_off([&] {
            store_ = Store::open(dir_);
            return put(std::to_string(i)) == Errc{} ? 0 : 1;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution(0, 3000)(random)));
        ::kill(opener.pid(), SIGKILL);
        EXPECT_EQ(putter.result(), 0);
        told.push_back(std::to_string(i));
    }
    store_ = Store::open(dir_);
    EXPECT_EQ(take_all(), told);
}

TEST_F(CrashTest, KilledDrainerRepeatsAtMostTheMessageInHand) {
    constexpr int kMessages = 1100; // two groups of 512 and a part of one
    enum class End { kInHand, kCommitted, kHeld, kInstead };
    const std::pair<int, End> cases[] = {
        {1, End::kInHand},    {2, End::kInHand},    {511, End::kInHand},    {512, End::kInHand}, {513, End::kInHand},
        {1025, End::kInHand}, {1100, End::kInHand}, {600, End::kCommitted}, {600, End::kHeld},   {600, End::kInstead}};
    for (const auto& [taken, end] : cases) {
        SCOPED_TRACE(std::to_string(taken) + "/" + std::to_string(static_cast<int>(end)));
        put_numbers(0, kMessages);
        const auto drain = [&, taken = taken, end = end] {
            const auto getter = Store::open(dir_)->drain("Q");
            for (int i = 0; i < taken; ++i) {
                if (take(*getter) != std::to_string(i)) {
                    return 1;
                }
            }
            if (end == End::kCommitted) {
                getter->commit();
            } else if (end == End::kHeld) {
                getter->hold("test");
            } else if (end == End::kInstead) {
                getter->put_instead("DEAD", {&descriptor_, {}, {}});
            }
            return ::raise(SIGKILL);
        };
        ASSERT_EQ(test::Child::fork_off(drain).result(), -SIGKILL);
        const std::size_t held = end == End::kHeld ? 1 : 0;
        Texts left;
        for (int i = end == End::kInHand ? taken - 1 : taken; i < kMessages; ++i) {
            left.push_back(std::to_string(i));
        }
        EXPECT_EQ(store_->queue_info("Q").depth, left.size() + held);
        EXPECT_EQ(shown().size(), left.size() + held);
        EXPECT_EQ(take_all(), left);
        EXPECT_EQ(store_->release_held("Q"), held);
        EXPECT_EQ(take_all().size(), held);
        EXPECT_EQ(take_all("DEAD").size(), end == End::kInstead ? 1U : 0U);
    }
}

TEST_F(CrashTest, AGroupStaysWithinItsBytes) {
    for (int i = 0; i < 5; ++i) {
        put(std::string(2000000, 'x'));
    }
    const auto drain = [&] {
        const auto getter = Store::open(dir_)->drain("Q");
        for (int i = 0; i < 5; ++i) {
            take(*getter);
        }
        return ::raise(SIGKILL);
    };
    ASSERT_EQ(test::Child::fork_off(drain).result(), -SIGKILL);
    store_.reset();
    std::filesystem::remove_all(dir_ / "queues");
    std::filesystem::create_directory(dir_ / "queues");
    std::filesystem::permissions(dir_ / "queues", std::filesystem::perms::owner_all);
    store_ = Store::open(dir_);
    EXPECT_EQ(shown().size(), 1U) << "with the fifth in hand the first four are deleted, or the group would pass 8 MiB";
}

TEST_F(CrashTest, WhatAKilledDrainerUsedIsPassedOverOnAFullDisk) {
    put_numbers(1, 6);
    const auto drain = [&] {
        const auto getter = Store::open(dir_)->drain("Q");
        take(*getter);
        getter->hold("test");
        take(*getter);
        take(*getter);
        return ::raise(SIGKILL); // "2" is used, "3" in hand
    };
    ASSERT_EQ(test::Child::fork_off(drain).result(), -SIGKILL);
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

TEST_F(CrashTest, AMarkMadeSinceABackupSaysNothingOfALaterQueue) {
    const std::filesystem::path file = dir_ / "store" / "data.mdb";
    const std::filesystem::path backup = folder_.path() / "backup";
    store_.reset();
    std::filesystem::copy_file(file, backup);
    for (const bool restored : {false, true}) {
        store_ = Store::open(dir_);
        store_->queue_define("NEW", "");
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(put("told", {}, "NEW"), Errc{});
        }
        if (restored) {
            EXPECT_EQ(take_all("NEW"), Texts(5, "told"));
            return;
        }
        const auto drain = [&] {
            const auto getter = Store::open(dir_)->drain("NEW");
            for (int i = 0; i < 5; ++i) {
                take(*getter);
            }
            return ::raise(SIGKILL);
        };
        ASSERT_EQ(test::Child::fork_off(drain).result(), -SIGKILL);
        store_.reset();
        std::filesystem::copy_file(backup, file, std::filesystem::copy_options::overwrite_existing);
    }
}

TEST_F(CrashTest, MarkOfAnotherGenerationQueueOrStoreSaysNothing) {
    const std::filesystem::path file = folder_.path() / "mark";
    MarkFile mark(file, 7, 1);
    EXPECT_TRUE(mark.used(0).empty()) << "a fresh file is nobody's mark";
    mark.begin_group(5);
    EXPECT_TRUE(mark.used(5).empty());
    mark.set_used({.first = 10, .through = 12});
    EXPECT_TRUE(mark.used(5).contains(10) && mark.used(5).contains(12));
    EXPECT_FALSE(mark.used(5).contains(9) || mark.used(5).contains(13));
    EXPECT_TRUE(mark.used(4).empty());
    EXPECT_TRUE(mark.used(6).empty()) << "the group was deleted, the mark not yet moved";
    EXPECT_TRUE(MarkFile(file, 7, 2).used(5).empty());
    EXPECT_TRUE(MarkFile(file, 8, 1).used(5).empty());
    EXPECT_EQ(MarkFile(file, 7, 1).used(5).through, 12U) << "another process sees it";
    mark.begin_group(6);
    EXPECT_TRUE(mark.used(6).empty());
}

} // namespace
} // namespace kvr
