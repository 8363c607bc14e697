// SPDX-License-Identifier: MIT
// One accepted connection: reads its bytes, has them split, takes the messages in and hands the complete ones over.
//
// The listener calls work() when the socket is ready or a timer is due. A connection that cannot store what arrives
// stops reading and keeps the bytes it has (at most one chunk) until it can; its peer is held back by TCP.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "delivery.h"
#include "frame_splitter.h"
#include "journal.h"
#include "listener_options.h"
#include "sha256.h"
#include "spool.h"
#include "tls_server.h"

namespace kvr {

using Clock = std::chrono::steady_clock;

/// What all connections of a listener share.
struct ListenerContext {
    static constexpr std::size_t kChunk = 256U << 10U; ///< greatest read

    const ListenerOptions& options;
    SSL_CTX* tls; ///< null: plain
    Spool* spool; ///< null: without a store
    Delivery& delivery;
    Journal& journal;
    std::vector<char> chunk = std::vector<char>(kChunk);
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    bool lost = false; ///< a connection ended with bytes that it had taken in and could not store
};

class Connection final : public FrameSink {
  public:
    Connection(std::uint64_t id, UniqueFd fd, std::string peer, ListenerContext& context);

    [[nodiscard]] std::uint64_t id() const { return id_; }
    [[nodiscard]] int fd() const { return stream_.fd(); }
    [[nodiscard]] bool closed() const { return state_ == State::kClosed; }
    /// Events to poll for; 0: leave the socket alone.
    [[nodiscard]] short events(Clock::time_point now) const;
    /// When work() is due although the socket says nothing.
    [[nodiscard]] Clock::time_point next_timer() const;
    /// Bytes wait inside the TLS session.
    [[nodiscard]] bool pending() const { return reading() && !paused_ && stream_.pending(); }
    [[nodiscard]] bool in_message() const { return !splitter_.at_boundary(); }
    [[nodiscard]] Clock::time_point last_bytes() const { return last_bytes_; }
    [[nodiscard]] bool in_handshake() const { return state_ == State::kHandshake; }
    [[nodiscard]] Clock::time_point started() const { return started_; }
    [[nodiscard]] bool bound() const { return !channel_.empty(); }
    /// Takes in messages, and has the channel and the peer's address of `other`, which are known after the bind frame.
    [[nodiscard]] bool serves_sender_of(const Connection& other) const {
        return (state_ == State::kOpen || state_ == State::kDraining) && bound() && channel_ == other.channel_ &&
               host() == other.host();
    }
    [[nodiscard]] std::size_t memory() const { return splitter_.memory() + left_.capacity(); }

    /// @param ready     poll's events for the socket
    /// @param may_read  false: only timers and the end of a connection, nothing new is taken in
    void work(Clock::time_point now, short ready, bool may_read);
    /// Ends our half, takes in what was sent before the peer noticed, at most until `deadline`.
    void drain(Clock::time_point deadline);
    void close(const std::string& reason);
    void trim() { splitter_.trim(); }

    bool on_bind(std::string_view channel) override;
    bool on_heartbeat() override;
    bool on_message(const WireMessage& message) override;
    bool on_file_begin(std::size_t index, std::uint64_t length) override;
    Flow on_file_bytes(std::span<const char>& bytes) override;
    bool on_file_end() override;
    Flow on_message_complete() override;

  private:
    enum class State {
        kHandshake,
        kOpen,
        kDraining, ///< our half is ended; what comes is still taken in
        kDropping, ///< our half is ended; what comes is dropped
        kSilent,   ///< neither read nor answered, on purpose
        kClosed,
    };
    struct FileFacts {
        std::string name;
        std::string path;
        std::uint64_t length = 0;
        std::string digest;
    };

    [[nodiscard]] bool reading() const {
        return state_ == State::kOpen || state_ == State::kDraining || state_ == State::kDropping;
    }
    [[nodiscard]] std::string_view host() const { return std::string_view(peer_).substr(0, peer_.rfind(':')); }
    [[nodiscard]] std::size_t read_limit(Clock::time_point now) const;
    void shake_hands(Clock::time_point now);
    void check_timers(Clock::time_point now);
    void resume(Clock::time_point now);
    void read(Clock::time_point now);
    void feed(std::span<const char> bytes, Clock::time_point now);
    void reach_switch(Clock::time_point now);
    void pause(Clock::time_point retry);
    bool judge_file_trouble(const IncomingFile& file);
    bool store_files();
    bool stop(std::string reason);
    [[nodiscard]] std::string message_facts() const;

    const std::uint64_t id_;
    const std::string peer_;
    ListenerContext& context_;
    Stream stream_;
    FrameSplitter splitter_;
    State state_ = State::kHandshake;
    const AwkwardOptions awkward_; ///< neutral for a connection to which the switches do not apply
    bool want_write_ = false;
    Clock::time_point started_;
    Clock::time_point last_bytes_;
    Clock::time_point deadline_; ///< of the handshake and bind, or of draining
    Clock::time_point ticket_at_ = Clock::time_point::max();
    std::string channel_; ///< empty before the bind frame
    std::uint64_t received_ = 0;
    std::uint64_t messages_ = 0;
    std::string stop_reason_;

    // Held back.
    bool paused_ = false;
    std::string file_trouble_; ///< why a file cannot be stored
    Clock::time_point retry_at_;
    std::vector<char> left_; ///< bytes that were read and not fed
    bool complete_waits_ = false;
    Clock::time_point turn_end_; ///< for what comes before it, other connections may wait

    // The message that is coming in.
    ReceivedMessage message_;
    bool is_file_ = false;
    std::size_t body_length_ = 0;
    std::string body_digest_;
    std::vector<IncomingFile> files_;
    std::vector<FileFacts> facts_;
    std::size_t current_file_ = 0;
    std::unique_ptr<Sha256> digest_; ///< null without a journal
};

} // namespace kvr
