// SPDX-License-Identifier: MIT
// Processes that are killed: drainers at every place of a group, putters in the middle of one. Nothing is lost, nothing
// is half there, at most the message in hand repeats.
#include <map>

#include <gmock/gmock.h>

#include "mark_file.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;

using CrashTest = StoreTest;

TEST_F(CrashTest, KilledDrainerRepeatsAtMostTheMessageInHand) {
    constexpr int kMessages = 150;
    enum class End { kInHand, kCommitted, kHeld, kInstead };
    const struct {
        int after; ///< messages taken when the drainer kills itself
        End end;
    } cases[] = {{1, End::kInHand},     {2, End::kInHand},  {63, End::kInHand},  {64, End::kInHand},
                 {65, End::kInHand},    {66, End::kInHand}, {129, End::kInHand}, {150, End::kInHand},
                 {70, End::kCommitted}, {70, End::kHeld},   {70, End::kInstead}};
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
            switch (each.end) {
            case End::kInHand:
                break;
            case End::kCommitted:
                getter->commit();
                break;
            case End::kHeld:
                getter->hold("test");
                break;
            case End::kInstead:
                getter->put_instead("DEAD", {&descriptor, {}, std::string_view("dead")});
                break;
            }
            ::raise(SIGKILL);
        });
        for (int i = 0; i < each.after; ++i) {
            ASSERT_EQ(child.next_report(), i);
        }
        ASSERT_TRUE(WIFSIGNALED(child.wait()));

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

TEST_F(CrashTest, DrainerKilledAnywhereLosesNothing) {
    constexpr int kRounds = 40;
    make_store();
    for (int round = 0; round < kRounds; ++round) {
        constexpr int kMessages = 400;
        put_numbers(*store_, "Q", 0, kMessages);
        std::map<int, int> seen;
        int last = -1;
        Child child([&](const Child::Report& report) {
            const auto getter = Store::open(dir_)->drain("Q");
            for (std::string text = take_text(*getter); text != "-"; text = take_text(*getter)) {
                report(std::stoi(text));
            }
        });
        for (int i = 0; i < 7 + round * 9; ++i) { // the child runs on meanwhile: it dies anywhere behind this
            last = child.next_report();
            ASSERT_EQ(last, i);
            ++seen[last];
        }
        ::kill(child.pid(), SIGKILL);
        for (int number = child.next_report(); number >= 0; number = child.next_report()) {
            ++seen[number];
            last = number;
        }
        child.wait();
        for (const std::string& text : take_all(*store_, "Q")) {
            ++seen[std::stoi(text)];
        }
        ASSERT_EQ(seen.size(), static_cast<std::size_t>(kMessages));
        for (const auto& [number, times] : seen) {
            ASSERT_LE(times, number == last ? 2 : 1) << number;
        }
    }
}

TEST_F(CrashTest, PutIsWholeOrNotThere) {
    constexpr int kRounds = 30;
    constexpr int kGroup = 10;
    make_store();
    for (int round = 0; round < kRounds; ++round) {
        Child child([&](const Child::Report& report) {
            const auto store = Store::open(dir_);
            for (int group = 0; group < 100000; ++group) {
                put_numbers(*store, "Q", group * kGroup, kGroup);
                report(group);
            }
        });
        int acknowledged = -1;
        for (int i = 0; i <= round; ++i) {
            acknowledged = child.next_report();
        }
        ::kill(child.pid(), SIGKILL);
        for (int group = child.next_report(); group >= 0; group = child.next_report()) {
            acknowledged = group;
        }
        child.wait();
        const std::vector<std::string> texts = take_all(*store_, "Q");
        ASSERT_EQ(texts.size() % kGroup, 0U);
        ASSERT_GE(texts.size(), static_cast<std::size_t>((acknowledged + 1) * kGroup));
        ASSERT_LE(texts.size(), static_cast<std::size_t>((acknowledged + 2) * kGroup));
        for (std::size_t i = 0; i < texts.size(); ++i) {
            ASSERT_EQ(texts[i], std::to_string(i));
        }
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

TEST_F(CrashTest, OnlyOneProcessDrainsAndAnyBrowses) {
    make_store();
    put_numbers(*store_, "Q", 1, 2);
    Child child([&](const Child::Report& report) {
        const auto getter = Store::open(dir_)->drain("Q");
        report(std::stoi(take_text(*getter)));
        ::pause();
    });
    ASSERT_EQ(child.next_report(), 1);
    try {
        static_cast<void>(store_->drain("Q"));
        FAIL() << "two drainers";
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), Errc::kBusy);
        EXPECT_THAT(error.what(), testing::HasSubstr(std::to_string(child.pid())));
    }
    EXPECT_EQ(store_->queue_info("Q").drained_by, child.pid());
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1*", "2"));
    child.kill();
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1", "2"));
    EXPECT_THAT(take_all(*store_, "Q"), ElementsAre("1", "2"));
}

} // namespace
} // namespace kvr
