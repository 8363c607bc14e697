// SPDX-License-Identifier: MIT
// Any bytes as a channel's stream: fed whole and in pieces the splitter must tell the same, keep within its bounds, and
// order its events so that no sink can be led astray.
#include <cstdlib>
#include <string>
#include <vector>

#include "receiver/frame_splitter.h"

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Writes down what it is told, and requires that it comes in order and within its bounds.
struct Witness : kvr::FrameSink {
    explicit Witness(bool pausing) : flow(pausing ? kvr::Flow::kPause : kvr::Flow::kGoOn) {}

    bool on_bind(std::string_view channel) override {
        return tell(told.empty() && !channel.empty() && channel.size() <= 63, "bind", channel);
    }
    bool on_heartbeat() override { return tell(!told.empty() && !in_message, "heartbeat", ""); }
    bool on_message(const kvr::WireMessage& message) override {
        const std::string_view body(message.body.data(), message.body.size());
        tell(!told.empty() && !in_message && message.queue.size() <= 32, "message", message.queue);
        tell(body.size() <= static_cast<std::size_t>(KVR_CHL_BODY_MAX), "body", body);
        tell(message.is_file() == !message.file_name.empty(), "name", message.file_name);
        for (const std::string_view name : message.attachments) {
            tell(!name.empty() && name.size() <= kvr::kMaxWireFileName, "attachment", name);
        }
        files = message.attachments.size() + (message.is_file() ? 1 : 0);
        next_file = 0;
        return in_message = true;
    }
    bool on_file_begin(std::size_t index, std::uint64_t length) override {
        require(in_message && left == 0 && index == next_file++ && index < files);
        left = length;
        return tell(length - 1 < std::uint64_t{KVR_CHL_NUM_MAX}, "file", std::to_string(length));
    }
    kvr::Flow on_file_bytes(std::span<const char>& bytes) override {
        require(!bytes.empty() && bytes.size() <= left);
        const std::size_t taken = flow == kvr::Flow::kPause ? bytes.size() / 2 + 1 : bytes.size();
        told.append(bytes.data(), taken); // the pieces differ from run to run, their bytes do not
        left -= taken;
        bytes = bytes.subspan(taken);
        return flow;
    }
    bool on_file_end() override { return tell(in_message && left == 0, "end of file", ""); }
    kvr::Flow on_message_complete() override {
        tell(in_message && left == 0 && next_file == files, "complete", "");
        in_message = false;
        return flow;
    }

    bool tell(bool allowed, std::string_view event, std::string_view what) {
        require(allowed);
        told.append(event).append(std::to_string(what.size())).append(" ").append(what);
        return true;
    }

    kvr::Flow flow;
    std::string told;
    bool in_message = false;
    std::size_t files = 0;
    std::size_t next_file = 0;
    std::uint64_t left = 0;
};

/// Returns what was told, and how it ended.
/// @param first       size of the first piece, at whose end the stream may be cut for ever
/// @param piece_size  of all others
std::string feed(const std::vector<char>& stream, std::size_t first, std::size_t piece_size, bool pausing) {
    kvr::FrameSplitter splitter;
    Witness witness(pausing);
    kvr::FeedEnd end = kvr::FeedEnd::kHungry;
    std::size_t size = 0;
    for (std::size_t at = 0; at < stream.size(); at += size) {
        size = std::min(at == 0 ? first : piece_size, stream.size() - at);
        const auto from = stream.begin() + static_cast<std::ptrdiff_t>(at);
        const std::vector<char> piece(from, from + static_cast<std::ptrdiff_t>(size)); // own memory shows reads outside
        std::span<const char> input = piece;
        do {
            end = splitter.feed(input, witness);
        } while (end == kvr::FeedEnd::kPaused);
        require(end == kvr::FeedEnd::kBroken || (input.empty() && splitter.offset() == at + size));
        require(end == kvr::FeedEnd::kBroken || !splitter.at_boundary() || !witness.in_message);
        require(splitter.memory() <= 2 * stream.size() + 8192);
    }
    const bool broken = end == kvr::FeedEnd::kBroken;
    const std::uint64_t offset = broken ? splitter.error().offset : splitter.offset();
    require(broken == !splitter.error().reason.empty() && offset <= stream.size());
    witness.tell(true, !broken && splitter.at_boundary() ? "whole" : "cut", std::to_string(offset));
    return witness.told + std::to_string(static_cast<int>(end));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kCutEverywhere = 2048; // longer streams would be slow
    const std::vector<char> stream(data, data + size);
    const std::string whole = feed(stream, size + 1, size + 1, false);
    for (const std::size_t piece : {std::size_t{1}, std::size_t{74}, 2 + size % 97}) {
        require(feed(stream, piece, piece, piece != 1) == whole);
    }
    for (std::size_t cut = 1; cut < std::min(size, kCutEverywhere); ++cut) {
        require(feed(stream, cut, size, false) == whole);
    }
    return 0;
}
