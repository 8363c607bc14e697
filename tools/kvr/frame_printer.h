// SPDX-License-Identifier: MIT
// Shows the frames of a channel's byte stream, for kvr dissect.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "output.h"
#include "receiver/frame_splitter.h"

namespace kvr {

struct FramePrinterOptions {
    bool json = false;
    bool full = false;                ///< bodies and files whole
    int connection = 0;               ///< its number among several, stands in each JSON line; 0: the only one
    std::function<void()> on_content; ///< called before something is printed for people; may be empty
};

class FramePrinter : public FrameSink {
  public:
    explicit FramePrinter(FramePrinterOptions options) : options_(std::move(options)) {}

    /// The stream's beginning was missed: it goes on at a frame that is no bind frame.
    void begin_in_the_middle() { splitter_.begin_in_the_middle(); }
    /// False when the stream is malformed, and nothing more of it is wanted.
    bool feed(std::span<const char> bytes);
    /// Shows how the stream ends, once.
    /// @param end     what ended it when all is well so far, "end of stream" for instance
    /// @param lacking what is missing here, else empty: then the stream is not whole
    /// @return whether it is whole
    bool finish(const std::string& end, const std::string& lacking = "");

    /// One line; for people the JSON fields do not count.
    void show(std::uint64_t offset, const char* frame, const Json& fields, const std::string& text) const;

    bool on_bind(std::string_view channel) override;
    bool on_heartbeat() override;
    bool on_message(const WireMessage& message) override;
    bool on_file_begin(std::size_t index, std::uint64_t length) override;
    Flow on_file_bytes(std::span<const char>& bytes) override;
    bool on_file_end() override { return true; }
    Flow on_message_complete() override;

  private:
    [[nodiscard]] std::uint64_t frame_start() const { return splitter_.event_offset() - sizeof(T_KAVRO_CHL_HDR); }
    void show_bytes(const std::string& what, std::span<const char> bytes) const;

    FramePrinterOptions options_;
    FrameSplitter splitter_;
    std::vector<std::string> names_;
    std::uint64_t messages_ = 0;
};

} // namespace kvr
