// SPDX-License-Identifier: MIT
// Drainers that are killed at the edges of a group: nothing is lost, at most the message in hand repeats. Kills at any
// moment are the battery's affair.
#include <gmock/gmock.h>

#include "mark_file.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;

using CrashTest = StoreTest;

TEST_F(CrashTest, KilledDrainerRepeatsAtMostTheMessageInHand) {
    constexpr int kMessages = 1100; // two groups of 512 and a part of one
    enum class End { kInHand, kCommitted, kHeld, kInstead };
    const struct {
        int after; ///< messages taken when the drainer kills itself
        End end;
    } cases[] = {{1, End::kInHand},   {2, End::kInHand},    {511, End::kInHand},  {512, End::kInHand},
                 {513, End::kInHand}, {1025, End::kInHand}, {1100, End::kInHand}, {600, End::kCommitted},
                 {600, End::kHeld},   {600, End::kInstead}};
    make_store();
    for (const auto& each : cases) {
        SCOPED_TRACE(std::to_string(each.after) + "/" + std::to_string(static_cast<int>(each.end)));
        put_numbers(*store_, "Q", 0, kMessages);
        Child child([&](const Child::Report& report) {
            const auto store = Store::open(dir_);
            const auto getter = store->drain("Q");
            const T_KAVRO_MD descriptor = blank_descriptor();
            for (int i = 0; i < each.after; ++i) {
                report(std::stoi(take_text(*getter)));
            }
            if (each.end == End::kCommitted) {
                getter->commit();
            } else if (each.end == End::kHeld) {
                getter->hold("test");
            } else if (each.end == End::kInstead) {
                getter->put_instead("DEAD", {&descriptor, {}, std::string_view("dead")});
            }
            ::raise(SIGKILL);
        });
        for (int i = 0; i < each.after; ++i) {
            ASSERT_EQ(child.next_report(), i);
        }
        ASSERT_EQ(child.result(), -SIGKILL);

        const bool held = each.end == End::kHeld;
        const int first_left = each.end == End::kInHand ? each.after - 1 : each.after;
        const QueueInfo info = store_->queue_info("Q");
        EXPECT_EQ(info.depth, static_cast<std::uint64_t>(kMessages - first_left + (held ? 1 : 0)));
        EXPECT_EQ(info.drained_by, 0);
        EXPECT_EQ(browse_texts(*store_, "Q").size(), info.depth);
        const std::vector<std::string> rest = take_all(*store_, "Q");
        ASSERT_EQ(rest.size(), static_cast<std::size_t>(kMessages - first_left));
        for (std::size_t i = 0; i < rest.size(); ++i) {
            ASSERT_EQ(rest[i], std::to_string(first_left + static_cast<int>(i)));
        }
        EXPECT_EQ(store_->release_held("Q"), held ? 1U : 0U);
        EXPECT_EQ(take_all(*store_, "Q").size(), held ? 1U : 0U);
        EXPECT_EQ(take_all(*store_, "DEAD").size(), each.end == End::kInstead ? 1U : 0U);
    }
}

TEST_F(CrashTest, MarkOfAnotherGenerationQueueOrStoreSaysNothing) {
    const std::filesystem::path file = home_ / "mark";
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
