// SPDX-License-Identifier: MIT
// Drainers that are killed at the edges of a group: nothing is lost, at most the message in hand repeats. Kills at any
// moment are the battery's affair.
#include "mark_file.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using CrashTest = StoreTest;

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
