// SPDX-License-Identifier: MIT
// The frame splitter: what it refuses, and its greatest package. That it tells the same wherever a stream is cut is the
// fuzzer's property, which every stream of the corpus is replayed against.
#include <gmock/gmock.h>

#include "frame_splitter.h"
#include "receiver_stream.h"

namespace kvr::test {
namespace {

class Sink : public FrameSink {
  public:
    bool on_bind(std::string_view /*channel*/) override { return true; }
    bool on_heartbeat() override { return true; }
    bool on_message(const WireMessage& /*message*/) override { return true; }
    bool on_file_begin(std::size_t /*index*/, std::uint64_t /*length*/) override { return true; }
    Flow on_file_bytes(std::span<const char>& bytes) override {
        bytes = {};
        return Flow::kGoOn;
    }
    bool on_file_end() override { return true; }
    Flow on_message_complete() override {
        ++complete_;
        return Flow::kGoOn;
    }
    int complete_ = 0;
};

constexpr std::size_t kWhole = 10000000;

/// Feeds pieces of so many bytes, each from memory of its own so that a sanitizer sees a step outside.
FeedEnd feed(FrameSplitter& splitter, FrameSink& sink, const std::string& stream, std::size_t step = kWhole) {
    FeedEnd end = FeedEnd::kHungry;
    for (std::size_t at = 0; at < stream.size(); at += step) {
        const std::vector<char> piece(stream.begin() + static_cast<std::ptrdiff_t>(at),
                                      stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + step, stream.size())));
        std::span<const char> input(piece);
        end = splitter.feed(input, sink);
    }
    return end;
}

/// Replaces bytes, so that a case says only what is wrong.
std::string with(std::string stream, std::size_t offset, std::string_view bytes) {
    return stream.replace(offset, bytes.size(), bytes);
}

const std::string kBind = bind_frame("C");

/// A data frame after the bind frame.
std::string data(const std::string& package, char type = '0') {
    return kBind + frame(type, "Q", "00000000", "00000000", package);
}
std::string file(const std::string& package) {
    return data(package, '4');
}
/// One that announces attachments.
std::string flagged(const std::string& rest) {
    return data(block('1', 4) + rest);
}

TEST(FrameSplitter, RefusesABadStreamAtItsOffsetAndForEver) {
    const std::string good = kBind + message("Q", "");
    const std::size_t at = kBind.size(); // start of the frame after the bind frame
    const std::size_t body = at + 75 + 272;
    const struct {
        std::string stream;
        std::size_t offset;
        const char* reason;
    } cases[] = {
        {with(kBind, 0, "00000074"), 0, "header length"},
        {with(kBind, 8, "02"), 8, "version"},
        {with(kBind, 10, "0000000 "), 10, "sequence number"},
        {with(kBind, 18, "3"), 18, "unknown frame type"},
        {message("Q", "x"), 18, "instead of bind"},
        {kBind + kBind, at + 18, "second bind"},
        {with(kBind, 19, "Q"), 19, "destination queue"},
        {bind_frame(""), 67, "package length 0"},
        {bind_frame(std::string(64, 'N')), 67, "package length 64"},
        {bind_frame(std::string("A\0B", 3)), 76, "control character"},
        {kBind + frame('2', "", "00000000", "00000000", "x"), at + 67, "length 1"},
        {with(good, at + 21, "Q"), at + 19, "after a NUL"},
        {with(good, at + 51, "0000000x"), at + 51, "message type"},
        {with(good, at + 59, "       1"), at + 59, "message code"},
        {with(good, at + 67, "-0000272"), at + 67, "not 8 digits"},
        {with(good, at + 67, "00000271"), at + 67, "length 271"},
        {with(good, at + 67, "02116323"), at + 67, "length 2116323"},
        {data(block('1', 0) + std::string(2098305, 'b')), body, "body of 2098305"},
        {data(block('2', 0)), at + 75 + 64, "store type"},
        {file(block('1', 0) + "x"), at + 75 + 64, "store type"},
        {flagged("000000000000000"), body, "too short"},
        {flagged("0000003100000000"), body, "attachment count"},
        {flagged("0000000100000001"), body + 8, "length of the"},
        {flagged("x0000000000000001"), body + 1, "trailer says"},
        {flagged(nuls(79) + "0000000100000079"), body, "attachment 1"},
        {flagged("0000000 " + nuls(72) + "a" + "0000000100000081"), body, "attachment 1"},
        {flagged(attachment_block({""})), body, "attachment 1"},
        {flagged(attachment_block({std::string(512, 'n')})), body, "1 to 511"},
        {flagged("00000002" + nuls(72) + "a" + "0000000100000081"), body, "attachment 1"},
        {flagged(digits(1) + nuls(72) + "ab" + "0000000100000082"), body + 82, "trailer"},
        {file(block('2', 0)), body, "file name"},
        {file(block('2', 0) + std::string("a\0b", 3)), body, "file name"},
        {file(block('2', 0) + padded("a", 1024)), body, "file name"},
        {kBind + message_with_files("Q", "", {{"a", ""}}), body + 97, "file length"},
        {flagged(attachment_block({"a"})) + "-0000001", body + 97, "file length"},
    };
    for (const auto& bad : cases) {
        for (const std::size_t step : {bad.stream.size() / 10000 + 1, kWhole}) {
            SCOPED_TRACE(bad.reason);
            FrameSplitter splitter;
            Sink sink;
            ASSERT_EQ(feed(splitter, sink, bad.stream, step), FeedEnd::kBroken);
            EXPECT_EQ(splitter.error().offset, bad.offset);
            EXPECT_THAT(splitter.error().reason, testing::HasSubstr(bad.reason));
            EXPECT_EQ(feed(splitter, sink, good), FeedEnd::kBroken);
            EXPECT_EQ(sink.complete_, 0);
        }
    }
}

TEST(FrameSplitter, TakesTheGreatestPackageAndGivesNoMemoryForAnAnnouncement) {
    const std::vector<std::string> names(30, std::string(511, 'n'));
    const std::string package = block('1', 4) + std::string(2098304, 'b') + attachment_block(names);
    ASSERT_EQ(package.size(), 2116322U);
    const std::string stream = data(package);
    FrameSplitter splitter;
    Sink sink;
    ASSERT_EQ(feed(splitter, sink, stream.substr(0, 300)), FeedEnd::kHungry);
    EXPECT_LE(splitter.memory(), 4096U);
    ASSERT_EQ(feed(splitter, sink, stream.substr(300)), FeedEnd::kHungry);
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(sink.complete_, 0);
        ASSERT_EQ(feed(splitter, sink, file_frame("f")), FeedEnd::kHungry);
    }
    EXPECT_EQ(sink.complete_, 1);
}

} // namespace
} // namespace kvr::test
