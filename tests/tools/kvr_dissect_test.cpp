// SPDX-License-Identifier: MIT
// What the splitter takes and refuses, seen through kvr dissect: the fuzzer's corpus, where the name of each stream
// says what is wrong with it, and the borders of what is allowed.
#include "kvr_program.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

using KvrDissect = ProgramTest;

TEST_F(KvrDissect, EachStreamOfTheCorpusIsWhatItsNameSays) {
    for (const auto& entry : std::filesystem::directory_iterator(KVR_CORPUS)) {
        const std::string name = entry.path().filename();
        const ProgramResult result = run("dissect " + entry.path().native());
        if (name.starts_with("refused_")) {
            std::string reason = name.substr(name.find('_') + 1);
            std::ranges::replace(reason, '_', ' ');
            EXPECT_THAT(result.out, HasSubstr(reason));
        } else {
            EXPECT_EQ(result.code, name.starts_with("cut_") ? 1 : 0) << name;
            EXPECT_THAT(result.out, HasSubstr("end of stream")) << name;
        }
    }
}

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
