// SPDX-License-Identifier: MIT
// Splits the byte stream of one channel connection into bind, heartbeat, messages and files.
//
// Bytes are fed as they come, cut anywhere. No length in the stream is believed: each is checked before anything is
// stored for it. What a unit (header, package, file length) lacks is kept until the rest arrives, at most one package
// of KVR_CHL_PKG_MAX bytes, in a buffer that grows with what has really arrived; file contents pass through unbuffered.
// A message counts only when on_message_complete was raised: whatever came before that belongs to a message that may
// never be completed. docs/protocol.md describes the stream.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kavro_api.h"
#include "kavro_chl.h"

namespace kvr {

constexpr std::size_t kMaxWireFileName = KVR_ACC_PATH_SIZE - 1; ///< base name of an attached file
constexpr std::size_t kMaxWirePath = 1023;                      ///< body of a file message

/// One data frame. The views end with the call that carries it.
struct WireMessage {
    char type; ///< KVR_CHL_FRAME_DATA or KVR_CHL_FRAME_FILE
    std::string_view queue;
    T_KAVRO_MD descriptor;       ///< with the header's type and code; texts are raw copies and may lack a NUL
    std::span<const char> block; ///< the descriptor's, as it came
    std::span<const char> body;
    std::string_view file_name; ///< of a file message: the base name in its body
    std::span<const std::string_view> attachments;

    [[nodiscard]] bool is_file() const { return type == KVR_CHL_FRAME_FILE; }
};

enum class Flow {
    kGoOn,
    kPause, ///< the event is taken as far as it says; feed the rest later
    kStop,  ///< never feed again
};

/// Receives what the stream says, in its order. After `false` or kStop the splitter is finished.
class FrameSink {
  public:
    virtual ~FrameSink() = default;
    virtual bool on_bind(std::string_view channel) = 0;
    virtual bool on_heartbeat() = 0;
    virtual bool on_message(const WireMessage& message) = 0;
    /// A file of `length` bytes follows: attached file `index`, or the message's own file when `index` is the number of
    /// attached files.
    virtual bool on_file_begin(std::size_t index, std::uint64_t length) = 0;
    /// @param bytes (in/out) advanced past what was taken; all of it unless the result is kPause
    virtual Flow on_file_bytes(std::span<const char>& bytes) = 0;
    virtual bool on_file_end() = 0;
    virtual Flow on_message_complete() = 0;
};

enum class FeedEnd {
    kHungry,  ///< all input used
    kPaused,  ///< the sink paused; input may be left
    kStopped, ///< the sink stopped
    kBroken,  ///< the stream is not what it should be: error() tells
};

class FrameSplitter {
  public:
    struct Error {
        std::uint64_t offset = 0; ///< of the field that is wrong, counted from the start of the stream
        std::string reason;
    };

    /// For a stream whose beginning was missed: no bind frame is waited for. Called before anything is fed.
    void begin_in_the_middle() { bound_ = true; }
    /// @param input (in/out) advanced past what was used
    FeedEnd feed(std::span<const char>& input, FrameSink& sink);

    /// True between frames, where the stream may end without cutting anything.
    [[nodiscard]] bool at_boundary() const { return unit_ == Unit::kHeader && files_done_ == files_ && held_.empty(); }
    /// Where in the stream the splitter stands, for a log line.
    [[nodiscard]] std::string position() const;
    [[nodiscard]] const Error& error() const { return error_; }
    [[nodiscard]] std::uint64_t offset() const { return unit_start_ + held_.size(); }
    /// During an event: where in the stream the header, package, file length or file bytes begin that it tells of.
    [[nodiscard]] std::uint64_t event_offset() const { return unit_start_; }
    /// Bytes of memory that the connection costs here.
    [[nodiscard]] std::size_t memory() const { return held_.capacity(); }
    /// Gives memory back while little is kept.
    void trim();

  private:
    enum class Unit { kHeader, kPackage, kFileLength, kFileData };
    using Bytes = std::span<const char>;

    FeedEnd take_unit(Bytes& input, FrameSink& sink);
    FeedEnd take_file_data(Bytes& input, FrameSink& sink);
    FeedEnd use_unit(Bytes unit, FrameSink& sink);
    FeedEnd use_header(Bytes unit);
    FeedEnd use_heartbeat(FrameSink& sink);
    FeedEnd use_bind(Bytes name, FrameSink& sink);
    FeedEnd use_data(Bytes package, FrameSink& sink);
    FeedEnd use_file_length(Bytes digits, FrameSink& sink);
    bool split_attachments(Bytes package, std::size_t& body_end);
    FeedEnd next_file_or_end(FrameSink& sink);
    FeedEnd fail(std::size_t offset_in_unit, std::string reason);
    void expect(Unit unit, std::size_t length);

    Unit unit_ = Unit::kHeader;
    std::size_t need_ = sizeof(T_KAVRO_CHL_HDR); ///< bytes of the unit; of file data: bytes to come
    std::uint64_t unit_start_ = 0;
    std::vector<char> held_;
    T_KAVRO_CHL_HDR header_{};
    bool bound_ = false;
    std::size_t files_ = 0;      ///< that follow the message
    std::size_t files_done_ = 0; ///< of them
    std::vector<std::string_view> names_;
    FeedEnd end_ = FeedEnd::kHungry; ///< kStopped and kBroken are for ever
    Error error_;
};

} // namespace kvr
