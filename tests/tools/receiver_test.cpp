// SPDX-License-Identifier: MIT
// The rules by which the listener chooses whose unfinished message goes; and its spool: names that a sender chose,
// files that replace nothing.
#include <gmock/gmock.h>

#include "kavutil/error.h"
#include "receiver/spool.h"
#include "receiver/unfinished.h"
#include "support/folder.h"

namespace kvr::test {

namespace fs = std::filesystem;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Unfinished, TheGreatestOfWhichNothingComesGoThenThoseThatWaitForRoom) {
    const UnfinishedTrial::Clock::time_point start{};
    const Unfinished before[] = {{1, 600, 0, 0},      {2, 900, 0, 0}, {3, 700, 50'000, 0},
                                 {4, 800, 0, 90'000}, {7, 10, 0, 0},  {8, 90, 0, 0, true}};
    const Unfinished after[] = {
        {1, 600, 500, 0},    // a byte now and then
        {2, 900, 90'000, 0}, // moves
        {3, 700, 50'000, 0}, // silent
        {4, 800, 0, 90'000}, // held back
        {6, 999, 0, 0},      // not there before
        {7, 10, 0, 0},       // keeps too little to matter
        {8, 90, 0, 7, true}, // waits for room itself
    };
    UnfinishedTrial trial{seconds(2)};
    EXPECT_THAT(trial.judge(before, 9999, start), IsEmpty());
    EXPECT_THAT(trial.judge(after, 9999, start + seconds(1)), IsEmpty()) << "before its time";
    EXPECT_THAT(trial.judge(after, 9999, start + seconds(2)), ElementsAre(3, 1));
    const Unfinished left[] = {{2, 900, 180'000, 0}, after[3], after[6]};
    EXPECT_THAT(trial.judge(left, 1, start + seconds(4)), ElementsAre(8));
}

TEST(SpoolFolder, IsPrivateAndItsNamesAreHarmlessAndReplaceAndFollowNothing) {
    const TemporaryFolder folder;
    const fs::path dir = folder.path() / "spool";
    Spool spool(dir);
    std::ofstream(folder.path() / "precious") << "untouched";
    fs::create_symlink(folder.path() / "precious", dir / "link");
    fs::create_symlink(folder.path() / "nowhere", dir / "dangling");
    const std::pair<std::string, std::string> cases[] = {
        {"..", "%2E."},
        {"../../etc/passwd", "..%2F..%2Fetc%2Fpasswd"},
        {std::string("a\nb\x7f\x1b[2J\0\xff", 10), "a%0Ab%7F%1B[2J%00\xff"},
        {std::string(511, 'n'), std::string(255, 'n')},
        {std::string(511, 'n'), std::string(244, 'n') + ".1"},
        {std::string(300, 'n') + ".tar", std::string(251, 'n') + ".tar"},
        {"link", "link.1"},
        {"dangling", "dangling.1"},
        {Spool::kIncoming, std::string(Spool::kIncoming) + ".1"},
        {"link", "link.2"},
    };
    for (const auto& [wire_name, name] : cases) {
        IncomingFile file(spool, wire_name);
        std::span<const char> bytes(name);
        EXPECT_TRUE(file.write(bytes) && file.finish());
        EXPECT_EQ(file.publish(), dir / name);
        EXPECT_EQ(contents(dir / name), name);
    }
    EXPECT_EQ(contents(folder.path() / "precious"), "untouched");
    EXPECT_EQ(names_in(folder.path()).size(), 2U);
    fs::create_directory(folder.path() / "other");
    fs::create_directory_symlink(folder.path() / "other", folder.path() / "other.link");
    for (const fs::path& path : {dir, folder.path() / "other.link", folder.path() / "other.link/"}) {
        EXPECT_THROW(Spool{path}, Error) << path;
    }
}

} // namespace kvr::test
