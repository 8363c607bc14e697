// SPDX-License-Identifier: MIT
// The rules by which the listener chooses who goes: whose unfinished message, and whose place.
#include <gmock/gmock.h>

#include "receiver/admission.h"
#include "receiver/unfinished.h"

namespace kvr::test {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(UnfinishedTrial, TakesTheGreatestOfThoseOfWhichNothingComes) {
    const UnfinishedTrial::Clock::time_point start{};
    const Unfinished before[] = {{1, 600, 0, 0},      {2, 900, 0, 0}, {3, 700, 50'000, 0},
                                 {4, 800, 0, 90'000}, {5, 999, 0, 0}, {7, 10, 0, 0}};
    const Unfinished after[] = {
        {1, 600, 500, 0},    // a byte now and then
        {2, 900, 90'000, 0}, // moves
        {3, 700, 50'000, 0}, // silent
        {4, 800, 0, 90'000}, // held back
        {5, 999, 0, 1},      // something has come at last
        {6, 999, 0, 0},      // not there before
        {7, 10, 0, 0},       // keeps too little to matter
    };
    UnfinishedTrial trial{seconds(2)};
    EXPECT_THAT(trial.judge(before, 9999, start), IsEmpty());
    EXPECT_THAT(trial.judge(after, 9999, start + seconds(1)), IsEmpty()) << "before its time";
    EXPECT_THAT(trial.judge(after, 9999, start + seconds(2)), ElementsAre(3, 1));
    trial.stop();
    EXPECT_THAT(trial.judge(after, 9999, start + seconds(60)), IsEmpty()) << "a new trial";
    EXPECT_THAT(trial.judge(after, 300, start + seconds(62)), ElementsAre(6));
}

TEST(UnfinishedTrial, TakesThoseThatWaitForRoomWhenNoSilentOneIsLeft) {
    const UnfinishedTrial::Clock::time_point start{};
    const Unfinished all[] = {{1, 90, 0, 7, true}, {2, 40, 0, 0}, {3, 30, 0, 0}, {4, 80, 0, 0, true}};
    UnfinishedTrial trial{seconds(2)};
    EXPECT_THAT(trial.judge(all, 1, start), IsEmpty());
    EXPECT_THAT(trial.judge(all, 999, start + seconds(2)), ElementsAre(2, 3));
    const Unfinished left[] = {all[0], all[3], {5, 999, 0, 1}};
    EXPECT_THAT(trial.judge(left, 1, start + seconds(4)), ElementsAre(1));
}

TEST(WhoMakesRoom, IsTheLongestIdleOfTheAddressWithMost) {
    const Occupied places[] = {{"a", seconds(900), true}, {"b", seconds(20), true},  {"b", seconds(40), true},
                               {"b", seconds(30), true},  {"b", seconds(99), false}, {"c", seconds(5), true}};
    EXPECT_EQ(who_makes_room(places, "", seconds(10), 4), 2U);
    EXPECT_EQ(who_makes_room(places, "", seconds(50), 4), 0U) << "none of the first address";
    EXPECT_EQ(who_makes_room(places, "", seconds(50), 3), 2U) << "more than its share";
    EXPECT_EQ(who_makes_room(places, "b", seconds(50), 3), std::nullopt) << "for one of its own";
    EXPECT_EQ(who_makes_room(places, "a", seconds(10), 4), 0U);
    EXPECT_EQ(who_makes_room(places, "c", seconds(10), 4), std::nullopt);
}

} // namespace
} // namespace kvr::test
