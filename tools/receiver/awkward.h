// SPDX-License-Identifier: MIT
// How one connection misbehaves on purpose (AwkwardOptions): the switches that apply to it, and what each allows. A
// connection to which none applies is a good one.
#pragma once

#include <chrono>
#include <cstdint>

#include "listener_options.h"

namespace kvr {

class Awkward {
  public:
    enum class Act { kNone, kReset, kEnd, kStall };

    /// @param connection  counts the accepted ones from 1
    Awkward(const AwkwardOptions& options, std::uint64_t connection);

    /// What is due once so many bytes have been received.
    [[nodiscard]] Act due(std::uint64_t received) const;
    /// Bytes that may be read now, of those that the caller would.
    /// @param age  of the connection
    [[nodiscard]] std::uint64_t limit(std::uint64_t wanted, std::uint64_t received,
                                      std::chrono::steady_clock::duration age) const;
    [[nodiscard]] bool slow() const { return switches_.read_rate != 0; }
    [[nodiscard]] bool mute() const { return switches_.no_handshake; }
    [[nodiscard]] bool ends_with_alert() const { return switches_.close_notify; }
    /// Bytes for the sender after its bind frame.
    [[nodiscard]] std::size_t answer() const { return switches_.send; }

  private:
    AwkwardOptions switches_;
};

} // namespace kvr
