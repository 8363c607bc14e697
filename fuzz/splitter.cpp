// SPDX-License-Identifier: MIT
// Any bytes as a channel's stream: fed whole and in pieces the splitter must tell the same, keep within its bounds, and
// order its events so that no sink can be led astray.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "receiver/frame_splitter.h"

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Sums up the events and checks their order.
class Summary : public kvr::FrameSink {
  public:
    explicit Summary(bool pausing) : pausing_(pausing) {}

    bool on_bind(std::string_view channel) override {
        require(!bound_ && !channel.empty() && channel.size() <= 63);
        bound_ = true;
        add(1, {channel.data(), channel.size()});
        return true;
    }
    bool on_heartbeat() override {
        require(bound_ && files_ == files_seen_);
        add(2, {});
        return true;
    }
    bool on_message(const kvr::WireMessage& message) override {
        require(bound_ && !in_message_);
        require(message.queue.size() <= 32 && message.attachments.size() <= KVR_ACC_MAX);
        require(message.body.size() <= static_cast<std::size_t>(KVR_CHL_BODY_MAX));
        require(message.is_file() == !message.file_name.empty());
        add(3, message.body);
        add(4, {message.queue.data(), message.queue.size()});
        add(5, {message.file_name.data(), message.file_name.size()});
        for (const std::string_view name : message.attachments) {
            require(!name.empty() && name.size() <= kvr::kMaxWireFileName);
            add(6, {name.data(), name.size()});
        }
        in_message_ = true;
        files_ = message.attachments.size() + (message.is_file() ? 1 : 0);
        files_seen_ = 0;
        return true;
    }
    bool on_file_begin(std::size_t index, std::uint64_t length) override {
        require(in_message_ && index == files_seen_ && index < files_);
        require(length >= 1 && length <= static_cast<std::uint64_t>(KVR_CHL_NUM_MAX));
        left_ = length;
        return true;
    }
    kvr::Flow on_file_bytes(std::span<const char>& bytes) override {
        require(!bytes.empty() && bytes.size() <= left_);
        const std::span<const char> taken = bytes.first(pausing_ ? bytes.size() / 2 + 1 : bytes.size());
        for (const char byte : taken) { // the pieces differ from run to run, their bytes do not
            add(7, {&byte, 1});
        }
        bytes = bytes.subspan(taken.size());
        left_ -= taken.size();
        return pausing_ ? kvr::Flow::kPause : kvr::Flow::kGoOn;
    }
    bool on_file_end() override {
        require(left_ == 0);
        ++files_seen_;
        return true;
    }
    kvr::Flow on_message_complete() override {
        require(in_message_ && files_seen_ == files_);
        in_message_ = false;
        add(8, {});
        return pausing_ ? kvr::Flow::kPause : kvr::Flow::kGoOn;
    }
    [[nodiscard]] std::uint64_t sum() const { return sum_; }
    [[nodiscard]] bool in_message() const { return in_message_; }

  private:
    void add(std::uint64_t event, std::span<const char> bytes) {
        constexpr std::uint64_t kFactor = 1099511628211ULL;
        sum_ = (sum_ ^ event) * kFactor;
        for (const char byte : bytes) {
            sum_ = (sum_ ^ static_cast<unsigned char>(byte)) * kFactor;
        }
        sum_ = (sum_ ^ bytes.size()) * kFactor;
    }

    bool pausing_;
    bool bound_ = false;
    bool in_message_ = false;
    std::size_t files_ = 0;
    std::size_t files_seen_ = 0;
    std::uint64_t left_ = 0;
    std::uint64_t sum_ = 1469598103934665603ULL;
};

struct Outcome {
    std::uint64_t sum;
    kvr::FeedEnd end;
    std::uint64_t offset;
    bool at_boundary;
};

/// @param first       size of the first piece, at whose end the stream may be cut for ever
/// @param piece_size  of all others
Outcome feed(const std::vector<char>& stream, std::size_t first, std::size_t piece_size, bool pausing) {
    kvr::FrameSplitter splitter;
    Summary summary(pausing);
    kvr::FeedEnd end = kvr::FeedEnd::kHungry;
    std::size_t size = 0;
    for (std::size_t at = 0; at < stream.size(); at += size) {
        size = std::min(at == 0 ? first : piece_size, stream.size() - at);
        // Memory of its own for each piece shows reads outside; single bytes would only be slow.
        const std::vector<char> copy(stream.begin() + static_cast<std::ptrdiff_t>(at),
                                     stream.begin() + static_cast<std::ptrdiff_t>(size == 1 ? at : at + size));
        std::span<const char> input = size == 1 ? std::span(stream).subspan(at, 1) : std::span(copy);
        do {
            end = splitter.feed(input, summary);
        } while (end == kvr::FeedEnd::kPaused);
        require(end != kvr::FeedEnd::kHungry || input.empty());
        require(end == kvr::FeedEnd::kBroken || splitter.offset() == at + size);
        require(end == kvr::FeedEnd::kBroken || !splitter.at_boundary() || !summary.in_message());
        require(splitter.memory() <= 2 * stream.size() + 8192);
    }
    const bool broken = end == kvr::FeedEnd::kBroken;
    require(broken == !splitter.error().reason.empty());
    const std::uint64_t offset = broken ? splitter.error().offset : splitter.offset();
    require(offset <= stream.size());
    return {summary.sum(), end, offset, !broken && splitter.at_boundary()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kCutEverywhere = 2048; // longer streams would be slow
    const std::vector<char> stream(data, data + size);
    const Outcome whole = feed(stream, size + 1, size + 1, false);
    const auto tells_the_same = [&](std::size_t first, std::size_t piece_size, bool pausing) {
        const Outcome pieces = feed(stream, first, piece_size, pausing);
        require(pieces.sum == whole.sum && pieces.end == whole.end && pieces.offset == whole.offset &&
                pieces.at_boundary == whole.at_boundary);
    };
    for (const std::size_t piece : {std::size_t{1}, std::size_t{74}, 2 + size % 97}) {
        tells_the_same(piece, piece, piece != 1);
    }
    for (std::size_t cut = 1; cut < std::min(size, kCutEverywhere); ++cut) {
        tells_the_same(cut, size, false);
    }
    return 0;
}
