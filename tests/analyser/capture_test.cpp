// SPDX-License-Identifier: MIT
// Captures as kvr dissect reads them: the streams in them are the ones that were sent, and what a capture lacks is
// said.
#include "analyser/capture_writer.h"
#include "tools/kvr_program.h"

namespace kvr::test {

class Capture : public ProgramTest {
  protected:
    const std::string stream_ = bind_frame("C") + message("Q", "first") + heartbeat_frame() +
                                message_with_files("Q", "body", {{"a.txt", "12345"}}) + message("Q", "last");
};

TEST_F(Capture, WhatItLacksAndWhatIsNoStreamIsSaid) {
    std::string keys;
    const std::vector<MadeSegment> whole = {
        {0, kSyn}, {1, kPush, stream_.substr(0, 100)}, {101, kFin, stream_.substr(100)}};
    const std::vector<MadeSegment> mixed = {
        whole[0], whole[2], whole[1], {0, kAck, "?"}, {60, kPush, stream_.substr(59, 99)}};
    const struct {
        std::vector<MadeSegment> segments;
        const char* shown; ///< regular expressions
        const char* error;
        std::string options = "";
        std::size_t port = 40000;
        int link = kRaw;
    } rows[] = {
        {whole, "connection 1, 127.0.0.1:40000 to 127.0.0.1:5151\n", "^$"},
        {whole, "connection 1, \\[::1\\]:40001 to \\[::1\\]:5151\n", "^$", "--filter 'tcp port 5151'", 40001},
        {mixed, "1, \\[::1\\]:40001 (.*\n)+.* end of stream\n$", "^$", "", 40001, kEthernet},
        {mixed, "1, 127.0.0.1:40000 (.*\n)+.* end of stream\n$", "^$", "", 40000, kSll},
        {mixed, "1, \\[::1\\]:40001 (.*\n)+.* end of stream\n$", "^$", "--full", 40001, kSll2},
        {whole, "^$", "no channel's stream in", "--filter 'port 1'"},
        {whole, "^$", "cannot use the filter", "--filter 'prot 1'"},
        {whole, "^$", "kind of link", "", 40000, 105},
        {{{0, kSyn}, {1, kPush, "GET / HTTP/1.1"}}, "^$", "capture the port"},
        {{{0, kSyn}, {1, kPush, "0\x84"}}, "^$", "capture the port"},
        {{{5, kPush, "\x16\x03"}, {5, kPush, "\x16\x03", true}}, "^$", "1 connection in TLS is"},
        {{whole[0], whole[1], whole[2], {70, kPush, "late", true}}, "end of stream\n$", "^$"},
        {{{0, kSyn}, {1, kPush, tls_pieces({}, TLS1_3_VERSION, keys).front().second}},
         "^$",
         "1 connections? in TLS.*\n.*no channel's stream.*tshark"},
        {{whole[0], whole[1], {70, kPush, "what?", true}, whole[2]}, "answer +the receiver sent 5 bytes", "^$"},
        {{whole[0], whole[1], {111, kPush, "later"}},
         "end +10 bytes are lacking in the capture, in a frame",
         "not whole"},
        {{whole[0], {1, kPush, stream_.substr(0, 100), false, 80}, whole[2]},
         "lacking .*, which cut packets off",
         "not whole"},
        {{{500, kPush, "the end of a message"}, {520, kPush, message("Q", "whole")}},
         "middle on, 20 bytes skipped\n +0  message.*\n(.*\n)+.* end of the capture\n",
         "^$"},
        {{whole[0], whole[1], {0, kReset, "", true}}, "reset by the receiver in a frame header", "not whole"},
        {{whole[0], {1, kPush, stream_}, {7000, kSyn}, {7001, kFin, stream_}}, // the port again
         "a new connection of the same ports\nconnection 2, (.*\n)+.* end of stream\n$",
         "^$"},
    };
    for (const auto& row : rows) {
        {
            CaptureWriter capture(path() / "capture", row.link);
            for (const MadeSegment& segment : row.segments) {
                capture.add(row.port, segment);
            }
        }
        const ProgramResult result = run("dissect capture " + row.options);
        EXPECT_THAT(result.out, ContainsRegex(row.shown));
        EXPECT_THAT(result.err, ContainsRegex(row.error));
        EXPECT_EQ(result.code, std::string(row.error) == "^$" ? 0 : 1) << result.err;
    }
}

TEST_F(Capture, FilesOfEitherFormAreReadFromAPipeTooAndDamagedOnesRefused) {
    CaptureWriter(path() / "capture").connection(40000, plain_pieces(stream_, 100));
    const std::string wanted = done("dissect capture");
    ASSERT_EQ(start("exec editcap -F pcapng capture capture.ng").result(), 0) << text("background.err");
    EXPECT_EQ(done("dissect capture.ng"), wanted);
    EXPECT_EQ(done("dissect -", text("capture.ng")), wanted);
    const ProgramResult cut = run("dissect -", text("capture").substr(0, 1000));
    EXPECT_THAT(cut.out, HasSubstr("bind         channel C"));
    EXPECT_THAT(cut.err, HasSubstr("standard input is cut or damaged"));
    EXPECT_THAT(run("dissect -", "\xd4 is no capture").err, HasSubstr("cannot read the capture"));
    EXPECT_THAT(run("dissect - --filter tcp", stream_).err, HasSubstr("leave --filter out"));
}

/// A stream that is no capture.
TEST_F(Capture, ABareStreamShowsEachFrameAtItsOffsetAndRefusesWhatIsJustTooMuch) {
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

} // namespace kvr::test
