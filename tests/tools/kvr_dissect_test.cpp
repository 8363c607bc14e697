// SPDX-License-Identifier: MIT
// kvr dissect: each frame with its offset, and where a recorded stream stops making sense.
#include "kvr_program.h"
#include "receiver_stream.h"

namespace kvr::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::MatchesRegex;

const std::string kStream =
    bind_frame("C") + heartbeat_frame() + message_with_files("Q", "body", {{"a.txt", "12345"}, {"b.txt", "67"}});

TEST(KvrDissect, ShowsEachFrameAtItsOffset) {
    const ProgramHome home;
    EXPECT_THAT(
        home.done({"dissect", home.file("whole", kStream)}),
        ContainsRegex("^ +0  bind +channel C\n +76  heartbeat.*\n +151  message +queue=Q .*\n(.*\n)+"
                      " +688  file +a.txt, 5 bytes\n +701  file +b.txt, 2 bytes\n +711  end +end of stream\n$"));
    const auto frames = home.json({"dissect", home.file("same", kStream)});
    ASSERT_EQ(frames.size(), 6U);
    EXPECT_EQ(frames[2]["frame"], "message");
    EXPECT_EQ(frames[5]["messages"], 1);
    EXPECT_EQ(home.run({"dissect", "-"}, kStream).code, 0);
}

TEST(KvrDissect, TellsWhereAStreamIsNotWhole) {
    const ProgramHome home;
    const struct {
        std::string stream;
        const char* last;
    } cases[] = {{kStream.substr(0, 697), " +697  end +end of stream in file 1 of a message, 4 bytes to come"},
                 {bind_frame("C") + frame('9', "", "00000000", "00000000", ""), " +94  end +malformed: .*type '9'"},
                 {"noise", " end "}};
    for (const auto& c : cases) {
        const ProgramResult result = home.run({"dissect", "-"}, c.stream);
        EXPECT_EQ(result.code, 1);
        EXPECT_THAT(result.out, ContainsRegex(c.last));
        EXPECT_THAT(result.err, MatchesRegex("kvr: .*last line.*\n"));
    }
}

} // namespace
} // namespace kvr::test
