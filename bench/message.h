// SPDX-License-Identifier: MIT
// The message that every sender of a measurement sends, and where it takes the next one from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kavro_api.h"
#include "kavro_chl.h"

namespace kvr::bench {

/// Name of the channel in the bind frame, the same for all senders.
inline constexpr const char* kChannel = "BENCH";
/// Destination queue named in the transmission header.
inline constexpr const char* kDestQueue = "BENCH.TARGET";

struct Message {
    Message(std::size_t body_size, std::vector<std::string> attached = {});

    T_KAVRO_MD descriptor;
    std::vector<char> data; ///< transmission header and body
    std::vector<std::string> files;

    [[nodiscard]] std::size_t body_size() const { return data.size() - sizeof(T_KAVRO_HDR_XMITQ); }
};

/// A message as it goes over the line, the contents of its files apart.
struct Frame {
    explicit Frame(const Message& message);

    T_KAVRO_CHL_HDR header;
    T_KAVRO_CHL_MD descriptor;
    std::string attachments; ///< attachment block, empty without files
};

/// The bind frame.
std::string bind_frame();

/// Bytes of a whole message on the line, files included.
std::uint64_t wire_bytes(const Message& message);

/// Says when the next message is due: a number of messages as fast as they are asked for, or one for each byte that
/// arrives on a pipe.
class Feed {
  public:
    static Feed backlog(std::uint64_t messages) { return {messages, -1}; }
    static Feed pipe(int read_end) { return {0, read_end}; }

    /// True when a message is due; false when a signal ended the wait. Waits for ever after the last one.
    bool next();

  private:
    Feed(std::uint64_t left, int fd) : left_(left), fd_(fd) {}

    std::uint64_t left_;
    int fd_;
};

} // namespace kvr::bench
