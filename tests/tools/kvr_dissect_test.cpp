// SPDX-License-Identifier: MIT
// What the splitter takes and refuses at the borders of what is allowed, seen through kvr dissect. (The fuzzer's
// corpus: the analyser's test.)
#include "kvr_program.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

using KvrDissect = ProgramTest;

TEST_F(KvrDissect, ShowsEachFrameAtItsOffsetAndRefusesWhatIsJustTooMuch) {
    const std::string bind = bind_frame("C");
    const std::string good =
        bind + heartbeat_frame() + message_with_files("Q", "body", {{"a.txt", "12345"}, {"b.txt", "67"}});
    const auto data = [&](const std::string& package) {
        return bind + frame('0', "Q", "00000000", "00000000", package);
    };
    const std::string flagged = block('1', 4);
    const std::string names = attachment_block(std::vector<std::string>(30, std::string(511, 'n')));
    const std::string body(2098304, 'b');
    const std::pair<std::string, const char*> cases[] = {
        // with a regular expression within the output
        {good, "^ +0  bind +channel C\n +76  heartbeat.*\n +151  message +queue=Q .*\n(.*\n)+ +688  file +a.txt, 5 "
               "bytes\n +701  file +b.txt, 2 bytes\n +711  end +end of stream\n$"},
        {good.substr(0, 697), " +697  end +end of stream in file 1 of a message, 4 bytes to come"},
        {data(flagged + body + names), "end of stream before file 1 of a message"},
        {data(flagged + body + "b" + names), "length 2116323 is not"},
        {data(block('1', 0) + body + "b"), "body of 2098305"},
        {data(flagged + attachment_block({std::string(512, 'n')})), "attachment 1: .*1 to 511"},
    };
    for (const auto& [stream, shown] : cases) {
        EXPECT_THAT(run("dissect -", stream).out, ContainsRegex(shown));
    }
}

} // namespace
} // namespace kvr::test
