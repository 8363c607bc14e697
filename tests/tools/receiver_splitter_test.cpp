// SPDX-License-Identifier: MIT
// The frame splitter against hand-built streams: what it tells, wherever the stream is cut, and what it refuses.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include "frame_splitter.h"
#include "receiver_stream.h"
#include "wire_fields.h"

namespace kvr::test {
namespace {

/// Writes down every event as a line; file contents as a whole.
class Recorder : public FrameSink {
  public:
    bool on_bind(std::string_view channel) override { return line(fmt::format("bind {}", channel)); }
    bool on_heartbeat() override { return line("heartbeat"); }
    bool on_message(const WireMessage& message) override {
        const T_KAVRO_MD& md = message.descriptor;
        line(fmt::format("message {} queue={} type={} code={} id={} flags={} priority={} seq={} report={} body={}",
                         message.type, message.queue, md.iMsgType, md.iMsgCode, escaped_field(md.sMsgId), md.iMsgFlags,
                         md.iPriority, md.iMsgSeqNo, md.iReportOpt,
                         escaped({message.body.data(), message.body.size()})));
        if (message.is_file()) {
            line(fmt::format("name {}", message.file_name));
        }
        for (const std::string_view name : message.attachments) {
            line(fmt::format("attachment {}", name));
        }
        return true;
    }
    bool on_file_begin(std::size_t index, std::uint64_t length) override {
        content_.clear();
        return line(fmt::format("file {} length={}", index, length));
    }
    Flow on_file_bytes(std::span<const char>& bytes) override {
        const std::size_t count = pause_in_files_ ? std::min<std::size_t>(bytes.size(), 3) : bytes.size();
        content_.append(bytes.data(), count);
        bytes = bytes.subspan(count);
        return pause_in_files_ ? Flow::kPause : Flow::kGoOn;
    }
    bool on_file_end() override { return line("content " + content_); }
    Flow on_message_complete() override {
        line("complete");
        ++complete_;
        return pause_after_messages_ ? Flow::kPause : Flow::kGoOn;
    }

    std::vector<std::string> lines_;
    int complete_ = 0;
    bool pause_in_files_ = false;
    bool pause_after_messages_ = false;

  private:
    bool line(std::string text) {
        lines_.push_back(std::move(text));
        return true;
    }
    std::string content_;
};

const std::string kSample = bind_frame("EAST.WEST") + message("Q1", "hello") + heartbeat_frame() +
                            message_with_files("Q2", "with files", {{"a.txt", "first"}, {"bb.dat", "second file"}}) +
                            file_message("Q3", {"x.dat", "contents of x"}, 19) + heartbeat_frame() +
                            message(std::string(32, 'L'), "");

std::vector<std::string> sample_events() {
    return {
        "bind EAST.WEST",
        "message 0 queue=Q1 type=7 code=-5 id=ID flags=0 priority=5 seq=16909060 report=-16 body=hello",
        "complete",
        "heartbeat",
        "message 0 queue=Q2 type=0 code=0 id=ID flags=4 priority=5 seq=16909060 report=-16 body=with files",
        "attachment a.txt",
        "attachment bb.dat",
        "file 0 length=5",
        "content first",
        "file 1 length=11",
        "content second file",
        "complete",
        "message 4 queue=Q3 type=0 code=0 id=ID flags=0 priority=5 seq=16909060 report=-16 body=" +
            escaped(padded("x.dat", 19)),
        "name x.dat",
        "file 0 length=13",
        "content contents of x",
        "complete",
        "heartbeat",
        "message 0 queue=" + std::string(32, 'L') +
            " type=7 code=-5 id=ID flags=0 priority=5 seq=16909060 report=-16 body=",
        "complete",
    };
}

/// Feeds pieces that end at the given offsets, each from memory of its own so that a sanitizer sees a step outside.
FeedEnd feed_pieces(FrameSplitter& splitter, FrameSink& sink, const std::string& stream,
                    const std::vector<std::size_t>& cuts) {
    std::size_t from = 0;
    FeedEnd end = FeedEnd::kHungry;
    for (const std::size_t to : cuts) {
        const std::vector<char> piece(stream.begin() + static_cast<std::ptrdiff_t>(from),
                                      stream.begin() + static_cast<std::ptrdiff_t>(to));
        std::span<const char> input(piece);
        do {
            end = splitter.feed(input, sink);
        } while (end == FeedEnd::kPaused);
        from = to;
    }
    return end;
}

TEST(FrameSplitter, TellsTheSameWhereverTheStreamIsCut) {
    for (std::size_t cut = 0; cut <= kSample.size(); ++cut) {
        SCOPED_TRACE(cut);
        FrameSplitter splitter;
        Recorder recorder;
        ASSERT_EQ(feed_pieces(splitter, recorder, kSample, {cut, kSample.size()}), FeedEnd::kHungry);
        ASSERT_EQ(recorder.lines_, sample_events());
        ASSERT_TRUE(splitter.at_boundary());
        ASSERT_EQ(splitter.offset(), kSample.size());
    }
    for (const std::size_t step : {1U, 2U, 3U, 7U, 74U, 76U}) {
        SCOPED_TRACE(step);
        FrameSplitter splitter;
        Recorder recorder;
        std::vector<std::size_t> cuts;
        for (std::size_t at = 0; at < kSample.size(); at += step) {
            cuts.push_back(at);
        }
        cuts.push_back(kSample.size());
        ASSERT_EQ(feed_pieces(splitter, recorder, kSample, cuts), FeedEnd::kHungry);
        ASSERT_EQ(recorder.lines_, sample_events());
    }
}

TEST(FrameSplitter, ASinkThatPausesMissesAndRepeatsNothing) {
    FrameSplitter splitter;
    Recorder recorder;
    recorder.pause_in_files_ = true;
    recorder.pause_after_messages_ = true;
    ASSERT_EQ(feed_pieces(splitter, recorder, kSample, {400, kSample.size()}), FeedEnd::kHungry);
    EXPECT_EQ(recorder.lines_, sample_events());
}

TEST(FrameSplitter, AStreamThatEndsAnywhereCompletesOnlyWholeMessages) {
    // Ends of the bind frame, of the heartbeats and of the messages: the only places where nothing is cut.
    const std::vector<std::string> units = {
        bind_frame("EAST.WEST"),
        message("Q1", "hello"),
        heartbeat_frame(),
        message_with_files("Q2", "with files", {{"a.txt", "first"}, {"bb.dat", "second file"}}),
        file_message("Q3", {"x.dat", "contents of x"}, 19),
        heartbeat_frame(),
        message(std::string(32, 'L'), "")};
    std::size_t start = 0;
    int complete = 0;
    std::string sent;
    for (const std::string& unit : units) {
        for (std::size_t length = 0; length < unit.size(); ++length) {
            FrameSplitter splitter;
            Recorder recorder;
            ASSERT_EQ(feed_pieces(splitter, recorder, kSample, {start + length}), FeedEnd::kHungry);
            ASSERT_EQ(recorder.complete_, complete) << "after " << start + length << " bytes";
            ASSERT_EQ(splitter.at_boundary(), length == 0) << "after " << start + length << " bytes";
        }
        start += unit.size();
        complete += unit[18] == '0' || unit[18] == '4' ? 1 : 0;
    }
    ASSERT_EQ(start, kSample.size());
}

struct BadStream {
    const char* name;
    std::string stream;
    std::size_t offset;
    const char* reason;
};

/// Replaces bytes, so that a case says only what is wrong.
std::string with(std::string stream, std::size_t offset, std::string_view bytes) {
    return stream.replace(offset, bytes.size(), bytes);
}

std::string data(const std::string& package) {
    return frame('0', "Q", "00000000", "00000000", package);
}

class RefusedStream : public testing::TestWithParam<BadStream> {};

TEST_P(RefusedStream, IsRefusedAtItsOffsetAndForEver) {
    const BadStream& bad = GetParam();
    for (const bool bytewise : {false, true}) {
        FrameSplitter splitter;
        Recorder recorder;
        std::vector<std::size_t> cuts;
        for (std::size_t at = 1; bytewise && at < bad.stream.size(); ++at) {
            cuts.push_back(at);
        }
        cuts.push_back(bad.stream.size());
        ASSERT_EQ(feed_pieces(splitter, recorder, bad.stream, cuts), FeedEnd::kBroken);
        EXPECT_EQ(splitter.error().offset, bad.offset);
        EXPECT_NE(splitter.error().reason.find(bad.reason), std::string::npos) << splitter.error().reason;
        EXPECT_EQ(recorder.complete_, 0);
        const std::size_t events = recorder.lines_.size();
        EXPECT_EQ(feed_pieces(splitter, recorder, bind_frame("A"), {76}), FeedEnd::kBroken);
        EXPECT_EQ(recorder.lines_.size(), events);
    }
}

const std::string kBind = bind_frame("C");
const std::size_t kB = kBind.size();        // start of the frame after the bind frame
const std::size_t kBody = kB + 75 + 272;    // its body
const std::string kFlagged = block('1', 4); // a descriptor block that announces attachments

INSTANTIATE_TEST_SUITE_P(
    Cases, RefusedStream,
    testing::Values(
        BadStream{"HeaderLength", with(kBind, 0, "00000074"), 0, "header length"},
        BadStream{"Version", with(kBind, 8, "02"), 8, "version"},
        BadStream{"SequenceNumber", with(kBind, 10, "0000000 "), 10, "sequence number"},
        BadStream{"FrameType", with(kBind, 18, "3"), 18, "unknown frame type"},
        BadStream{"DataBeforeBind", message("Q", "x"), 18, "instead of bind"},
        BadStream{"SecondBind", kBind + kBind, kB + 18, "second bind"},
        BadStream{"BindWithQueue", with(kBind, 19, "Q"), 19, "destination queue"},
        BadStream{"BindWithoutName", bind_frame(""), 67, "package length 0"},
        BadStream{"BindNameOf64", bind_frame(std::string(64, 'N')), 67, "package length 64"},
        BadStream{"BindNameWithNul", bind_frame(std::string("A\0B", 3)), 76, "control character"},
        BadStream{"HeartbeatWithPackage", kBind + frame('2', "", "00000000", "00000000", "x"), kB + 67, "length 1"},
        BadStream{"QueueAfterNul", kBind + with(message("Q", ""), 21, "Q"), kB + 19, "after a NUL"},
        BadStream{"MessageType", kBind + with(message("Q", ""), 51, "0000000x"), kB + 51, "message type"},
        BadStream{"MessageCode", kBind + with(message("Q", ""), 59, "       1"), kB + 59, "message code"},
        BadStream{"PackageLengthNegative", kBind + with(message("Q", ""), 67, "-0000272"), kB + 67, "not 8 digits"},
        BadStream{"PackageTooShort", kBind + with(message("Q", ""), 67, "00000271"), kB + 67, "length 271"},
        BadStream{"PackageTooLong", kBind + with(message("Q", ""), 67, "02116323"), kB + 67, "length 2116323"},
        BadStream{"BodyTooLong", kBind + data(block('1', 0) + std::string(2098305, 'b')), kBody, "body of 2098305"},
        BadStream{"StoreTypeFileInDataFrame", kBind + data(block('2', 0)), kB + 75 + 64, "store type"},
        BadStream{"StoreTypeDataInFileFrame", kBind + frame('4', "Q", "00000000", "00000000", block('1', 0) + "x"),
                  kB + 75 + 64, "store type"},
        BadStream{"NoRoomForTrailer", kBind + data(kFlagged + "000000000000000"), kBody, "too short"},
        BadStream{"CountOf31", kBind + data(kFlagged + "0000003100000000"), kBody, "attachment count"},
        BadStream{"EntriesBeyondPackage", kBind + data(kFlagged + "0000000100000001"), kBody + 8, "length of the"},
        BadStream{"EntriesWithoutCount", kBind + data(kFlagged + "x" + "0000000000000001"), kBody + 1, "trailer says"},
        BadStream{"EntryCutShort", kBind + data(kFlagged + nuls(79) + "0000000100000079"), kBody, "attachment 1"},
        BadStream{"NameLengthNotDigits", kBind + data(kFlagged + "0000000 " + nuls(72) + "a" + "0000000100000081"),
                  kBody, "attachment 1"},
        BadStream{"NameEmpty", kBind + data(kFlagged + attachment_block({""})), kBody, "attachment 1"},
        BadStream{"NameOf512", kBind + data(kFlagged + attachment_block({std::string(512, 'n')})), kBody, "1 to 511"},
        BadStream{"NameBeyondEntries", kBind + data(kFlagged + "00000002" + nuls(72) + "a" + "0000000100000081"), kBody,
                  "attachment 1"},
        BadStream{"EntriesLongerThanTheirSum",
                  kBind + data(kFlagged + digits(1) + nuls(72) + "ab" + "0000000100000082"), kBody + 82, "trailer"},
        BadStream{"FileMessageWithoutName", kBind + frame('4', "Q", "00000000", "00000000", block('2', 0)), kBody,
                  "file name"},
        BadStream{"FileMessageNameAfterNul",
                  kBind + frame('4', "Q", "00000000", "00000000", block('2', 0) + std::string("a\0b", 3)), kBody,
                  "file name"},
        BadStream{"FileMessagePathOf1024",
                  kBind + frame('4', "Q", "00000000", "00000000", block('2', 0) + padded("a", 1024)), kBody,
                  "file name"},
        BadStream{"FileLengthZero", kBind + message_with_files("Q", "", {{"a", ""}}), kBody + 97, "file length"},
        BadStream{"FileLengthNegative", kBind + data(kFlagged + attachment_block({"a"})) + "-0000001", kBody + 97,
                  "file length"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(FrameSplitter, TakesTheGreatestPackage) {
    const std::vector<std::string> names(30, std::string(511, 'n'));
    const std::string package = block('1', 4) + std::string(2098304, 'b') + attachment_block(names);
    ASSERT_EQ(package.size(), 2116322U);
    std::string stream = bind_frame(std::string(63, 'C')) + data(package);
    for (int i = 0; i < 30; ++i) {
        stream += file_frame("f");
    }
    FrameSplitter splitter;
    Recorder recorder;
    ASSERT_EQ(feed_pieces(splitter, recorder, stream, {stream.size() / 2, stream.size()}), FeedEnd::kHungry);
    EXPECT_EQ(recorder.complete_, 1);
    EXPECT_TRUE(splitter.at_boundary());
}

TEST(FrameSplitter, AnAnnouncedLengthCostsNoMemory) {
    const std::string stream = kBind + with(message("Q", ""), 67, "02116322").substr(0, 80);
    FrameSplitter splitter;
    Recorder recorder;
    ASSERT_EQ(feed_pieces(splitter, recorder, stream, {stream.size()}), FeedEnd::kHungry);
    EXPECT_LE(splitter.memory(), 4096U);
}

} // namespace
} // namespace kvr::test
