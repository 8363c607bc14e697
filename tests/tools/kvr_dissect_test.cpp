// SPDX-License-Identifier: MIT
// What the splitter takes and refuses, seen through kvr dissect: the fuzzer's corpus, where the name of each stream
// says what is wrong with it, and the borders of what is allowed.
#include "kvr_program.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

TEST(KvrDissect, EachStreamOfTheCorpusIsWhatItsNameSays) {
    const ProgramHome home;
    for (const auto& entry : std::filesystem::directory_iterator(KVR_CORPUS)) {
        const std::string name = entry.path().filename();
        const ProgramResult result = home.run("dissect " + entry.path().native());
        if (name.starts_with("refused_")) {
            std::string reason = name.substr(name.find('_') + 1);
            std::ranges::replace(reason, '_', ' ');
            EXPECT_THAT(result.out, HasSubstr(reason));
        } else if (!name.starts_with("found_")) {
            EXPECT_EQ(result.code, name.starts_with("cut_") ? 1 : 0) << name;
            EXPECT_THAT(result.out, HasSubstr("end of stream")) << name;
        }
    }
}

TEST(KvrDissect, ShowsEachFrameAtItsOffsetAndRefusesWhatIsJustTooMuch) {
    const std::string bind = bind_frame("C");
    const std::string good =
        bind + heartbeat_frame() + message_with_files("Q", "body", {{"a.txt", "12345"}, {"b.txt", "67"}});
    const auto data = [&](char type, const std::string& package) {
        return bind + frame(type, "Q", "00000000", "00000000", package);
    };
    const auto flagged = [&](const std::string& rest) { return data('0', block('1', 4) + rest); };
    const std::string names = attachment_block(std::vector<std::string>(30, std::string(511, 'n')));
    const std::string body(2098304, 'b');
    const struct {
        std::string stream;
        const char* shown; ///< regular expression within the output
    } cases[] = {
        {good, "^ +0  bind +channel C\n +76  heartbeat.*\n +151  message +queue=Q .*\n(.*\n)+ +688  file +a.txt, 5 "
               "bytes\n +701  file +b.txt, 2 bytes\n +711  end +end of stream\n$"},
        {good.substr(0, 697), " +697  end +end of stream in file 1 of a message, 4 bytes to come"},
        {flagged(body + names), "end of stream before file 1 of a message"},
        {flagged(body + "b" + names), "length 2116323 is not"},
        {data('0', block('1', 0) + body + "b"), "body of 2098305"},
        {data('0', std::string(271, 'x')), "length 271 is not"},
        {bind_frame(""), "length 0 "},
        {bind_frame(std::string(64, 'N')), "length 64 "},
        {bind + frame('2', "", "00000000", "00000000", "x"), " 143  end +malformed: .*length 1 "},
        {data('0', block('2', 0)), "store type '2'"},
        {flagged("0000003100000000"), "attachment count"},
        {flagged(attachment_block({std::string(512, 'n')})), "attachment 1: .*1 to 511"},
        {flagged(digits(2) + nuls(72) + "a" + "0000000100000081"), "attachment 1: "},
        {flagged(digits(1) + nuls(72) + "ab" + "0000000100000082"), "the trailer says 82"},
        {data('4', block('2', 0)), "file name"},
        {data('4', block('2', 0) + padded("a", 1024)), "file name"},
        {bind + message_with_files("Q", "", {{"a", ""}}), "file length"},
    };
    const ProgramHome home;
    for (const auto& [stream, shown] : cases) {
        const ProgramResult result = home.run("dissect -", stream);
        EXPECT_EQ(result.code, &stream == &cases[0].stream ? 0 : 1);
        EXPECT_THAT(result.out, ContainsRegex(shown));
    }
    EXPECT_EQ(home.json("dissect " + home.file("stream", good)).size(), 6U);
}

} // namespace
} // namespace kvr::test
