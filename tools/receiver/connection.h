// SPDX-License-Identifier: MIT
// One accepted connection: the state of its line, when it is read and how much, and its end. It has the bytes split and
// passes on what they say: the message that is coming in is kept by IncomingMessage.
//
// The listener says before each round whether the connection is read (let_read), and calls work() when its socket is
// ready or a timer is due. A connection whose messages or files cannot be stored pauses: it stops reading, keeps the
// bytes that it has read already (one chunk at most), and tries again later; TCP then holds the sender back.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "awkward.h"
#include "frame_splitter.h"
#include "incoming_message.h"
#include "listener_context.h"
#include "reading_time.h"
#include "tls_server.h"

namespace kvr {

using Clock = std::chrono::steady_clock;

class Connection;

/// Where a connection stands among those of its sender; kept by SenderOrder.
struct SenderPlace {
    const Connection* older = nullptr; ///< the next older line
    Clock::duration since{};           ///< that one's reading time when this one came to stand behind it
    bool waits = false;                ///< it is not read before the older line
    bool let_by = false;               ///< it has been read: from then on it waits for no older line any more
};

class Connection final : public FrameSink {
  public:
    Connection(std::uint64_t id, UniqueFd fd, std::string peer, ListenerContext& context);

    [[nodiscard]] std::uint64_t id() const { return line_.id; }
    [[nodiscard]] int fd() const { return stream_.fd(); }
    [[nodiscard]] bool closed() const { return state_ == State::kClosed; }
    /// Whether the listener reads it from now on; its reading time passes only while it does.
    void let_read(bool read, Clock::time_point now);
    [[nodiscard]] bool is_read() const { return is_read_; }
    /// Events to poll for; 0: leave the socket alone.
    [[nodiscard]] short events(Clock::time_point now) const;
    /// When work() is due although the socket says nothing.
    [[nodiscard]] Clock::time_point next_timer() const;
    /// Bytes wait inside the TLS session.
    [[nodiscard]] bool pending() const { return is_read_ && reading() && !paused_ && stream_.buffered() > 0; }
    [[nodiscard]] bool in_handshake() const { return state_ == State::kHandshake; }
    /// It is in its handshake, and its sender's first bytes have come.
    [[nodiscard]] bool handshake_begun() const { return in_handshake() && stream_.answered(); }
    /// It was asked to end, and is read to the end that its sender makes.
    [[nodiscard]] bool ending() const { return state_ == State::kEnding; }
    /// It waits until a file can be stored.
    [[nodiscard]] bool waits_for_spool() const { return paused_ && !incoming_.trouble().empty(); }
    /// It waits for that, and room is all that the spool lacks.
    [[nodiscard]] bool short_of_room() const { return waits_for_spool() && incoming_.lacks_room(); }
    [[nodiscard]] bool paused() const { return paused_; }
    /// Its package is complete: what comes is files, until the next message.
    [[nodiscard]] bool awaits_files() const { return incoming_.awaits_files(); }
    [[nodiscard]] const ReadingTime& reading_time() const { return reading_time_; }
    /// When it was read for kQuiet without a byte; max while it is not read.
    [[nodiscard]] Clock::time_point quiet_at() const;
    /// Time since a message was completed, or a good part of one came.
    [[nodiscard]] Clock::duration idle(Clock::time_point now) const { return now - progress_at_; }
    /// Bytes that have arrived and were not read, as far as the socket and the TLS session know.
    [[nodiscard]] std::size_t unread() const;
    [[nodiscard]] std::uint64_t received() const { return received_; }

    /// Address of the peer without the port.
    [[nodiscard]] std::string_view host() const { return line_.host(); }
    /// Channel and address; empty before the bind frame.
    [[nodiscard]] const std::string& sender() const { return sender_; }
    /// Takes in messages of a sender that is known, in their order; one that misbehaves on purpose holds nobody up.
    [[nodiscard]] bool in_line() const { return takes_in() && !line_.channel.empty(); }
    /// Has not said its name yet.
    [[nodiscard]] bool unnamed() const { return (takes_in() || in_handshake()) && line_.channel.empty(); }
    [[nodiscard]] SenderPlace& place() { return place_; }
    [[nodiscard]] const SenderPlace& place() const { return place_; }

    /// Bytes kept for the message that is coming in, in memory and in the spool.
    [[nodiscard]] std::size_t memory() const { return splitter_.memory() + left_.capacity() + incoming_.memory(); }
    [[nodiscard]] std::uint64_t spooled() const { return incoming_.spooled(); }

    /// @param ready     poll's events for the socket
    /// @param may_read  false: only timers and the end of a connection, nothing new is taken in
    /// @param most      greatest read
    void work(Clock::time_point now, short ready, bool may_read, std::size_t most = ListenerContext::kChunk);
    /// Ends our half of the line, so that the sender ends its own, and takes in what was sent before it noticed, for at
    /// most `time` of reading.
    void ask_to_end(Clock::duration time, const std::string& why, Clock::time_point now);
    /// @param cause  the kind of reason, for the log
    void close(const std::string& reason, std::string_view cause = "connections ended");
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
        kEnding,   ///< our half is ended; what comes is still taken in
        kDropping, ///< our half is ended; what comes is dropped
        kSilent,   ///< neither read nor answered, on purpose
        kClosed,
    };
    [[nodiscard]] bool reading() const {
        return state_ == State::kOpen || state_ == State::kEnding || state_ == State::kDropping;
    }
    [[nodiscard]] bool takes_in() const {
        return (state_ == State::kOpen || state_ == State::kEnding) && !awkward_.slow();
    }
    [[nodiscard]] std::size_t read_limit(Clock::time_point now) const;
    void shake_hands(Clock::time_point now);
    void check_timers(Clock::time_point now);
    void resume(Clock::time_point now);
    void read(Clock::time_point now, std::size_t most);
    void feed(std::span<const char> bytes, Clock::time_point now);
    /// Does what the switches have for it after so many bytes.
    void misbehave(Clock::time_point now);
    void pause(Clock::time_point retry);
    /// Hands the complete message over. False: it waits until its files can be stored.
    bool hand_over();

    Line line_;
    ListenerContext& context_;
    Stream stream_;
    FrameSplitter splitter_;
    IncomingMessage incoming_;
    const Awkward awkward_;
    State state_ = State::kHandshake;
    bool want_write_ = false; ///< the handshake waits until the socket takes bytes
    std::string sender_;
    SenderPlace place_;
    std::uint64_t received_ = 0;

    // Times.
    Clock::time_point started_;
    bool is_read_ = false;
    ReadingTime reading_time_;
    Clock::duration last_bytes_{};                           ///< when bytes came last, in reading time
    Clock::duration deadline_;                               ///< of handshake and bind or of the end, in reading time
    Clock::time_point progress_at_;                          ///< see idle()
    std::uint64_t progress_bytes_ = 0;                       ///< received by then
    Clock::time_point ticket_at_ = Clock::time_point::max(); ///< of a late session ticket

    // The pause of a connection that cannot store what has come, or has had its turn.
    bool paused_ = false;
    Clock::time_point retry_at_;
    std::vector<char> left_;     ///< bytes that were read and not fed
    Clock::time_point turn_end_; ///< a message that is complete after that lets other connections have theirs
};

} // namespace kvr
