// SPDX-License-Identifier: MIT
// A place on the road between worker and listener at which lines break: it carries one line after the other, and cuts
// them at chosen bytes, by an end of stream to both ends or by a reset. What it has in hand then is gone.
#pragma once

#include <atomic>
#include <mutex>
#include <random>

#include "support/peer.h"

namespace kvr::test {

class Relay {
  public:
    explicit Relay(std::uint64_t seed) : random_(seed) {}

    [[nodiscard]] int port() const { return peer_.port(); }
    /// Where lines lead from now on; one that leads to nobody is cut.
    void point_at(int port) { target_ = port; }
    /// Lines are cut so many times from now on, each time when up to `bytes` more have come; 0: each as it comes.
    void cut(std::size_t times, std::uint64_t bytes);
    [[nodiscard]] std::size_t cuts() const { return cuts_; }   ///< those that were asked for
    [[nodiscard]] std::size_t lines() const { return lines_; } ///< so far

  private:
    void carry(int worker);
    void carry_on(int worker, int listener);
    /// How many of these bytes come before a cut that is due with them.
    std::size_t passing(std::size_t bytes);

    std::mutex mutex_;
    std::mt19937_64 random_;
    std::size_t times_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t left_ = 0; ///< before the next cut
    std::atomic<std::size_t> cuts_ = 0;
    std::atomic<std::size_t> lines_ = 0;
    std::atomic<int> target_ = 0;
    Peer peer_{{.receive_buffer = 65536}, [this](PeerConnection& worker) { carry(worker.socket()); }};
};

} // namespace kvr::test
