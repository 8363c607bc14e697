// SPDX-License-Identifier: MIT
#include "connection.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "listen_log.h"
#include "sender_order.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::chrono::seconds kRetryPause{1};     ///< between tries to store what found no room
constexpr std::chrono::seconds kDropTime{5};       ///< for the peer to notice an end of stream on purpose
constexpr std::chrono::milliseconds kRateTick{20}; ///< how often a slow reader reads
constexpr std::chrono::milliseconds kTurnTime{20}; ///< then others have their turn
constexpr std::uint64_t kProgress = 32U << 10U;    ///< bytes of an unfinished message that are worth a place

} // namespace

Connection::Connection(std::uint64_t id, UniqueFd fd, std::string peer, ListenerContext& context)
    : line_{id, std::move(peer), {}}, context_(context), stream_(std::move(fd), context.tls), incoming_(line_, context),
      awkward_(context.options.awkward, id), started_(Clock::now()),
      deadline_(std::chrono::seconds(context.options.handshake_seconds)), progress_at_(started_) {
    context_.journal.add("connect", id, fmt::format(R"("peer":"{}")", line_.peer));
    if (awkward_.mute()) {
        state_ = State::kSilent;
    } else if (context.tls == nullptr) {
        state_ = State::kOpen;
        misbehave(started_);
    }
}

short Connection::events(Clock::time_point now) const {
    switch (state_) {
    case State::kHandshake:
        return static_cast<short>(want_write_ ? POLLOUT : POLLIN);
    case State::kOpen:
    case State::kEnding:
    case State::kDropping:
        return static_cast<short>(paused_ || read_limit(now) == 0 ? 0 : POLLIN);
    case State::kSilent:
        return POLLRDHUP;
    case State::kClosed:
        break;
    }
    return 0;
}

void Connection::let_read(bool read, Clock::time_point now) {
    is_read_ = read;
    reading_time_.run(read && !paused_, now);
}

Clock::time_point Connection::quiet_at() const {
    return reading_time_.when(last_bytes_ + kQuiet);
}

std::size_t Connection::unread() const {
    int count = 0;
    const std::size_t waiting = ::ioctl(fd(), FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
    return waiting + stream_.buffered();
}

Clock::time_point Connection::next_timer() const {
    Clock::time_point next = ticket_at_;
    if (state_ == State::kEnding || state_ == State::kDropping ||
        (state_ != State::kSilent && state_ != State::kClosed && line_.channel.empty())) {
        next = std::min(next, reading_time_.when(deadline_));
    }
    if (!is_read_) {
        return next;
    }
    if (paused_) {
        next = std::min(next, retry_at_);
    } else if (awkward_.slow() && reading()) {
        next = std::min(next, Clock::now() + kRateTick);
    }
    return next;
}

void Connection::work(Clock::time_point now, short ready, bool may_read, std::size_t most) {
    check_timers(now);
    if (closed()) {
        return;
    }
    turn_end_ = Clock::now() + kTurnTime;
    if (state_ == State::kSilent && (ready & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        close("the peer went away");
    }
    if (state_ == State::kHandshake && ready != 0 && may_read) {
        shake_hands(now);
    }
    if (paused_ && now >= retry_at_ && may_read) {
        resume(now);
    }
    if (reading() && !paused_ && may_read && (ready != 0 || stream_.buffered() > 0)) {
        read(now, most);
    }
}

void Connection::check_timers(Clock::time_point now) {
    if (now >= ticket_at_) {
        ticket_at_ = Clock::time_point::max();
        stream_.send_ticket();
    }
    if (reading_time_.at(now) < deadline_) {
        return;
    }
    if (state_ == State::kEnding || state_ == State::kDropping) {
        close(paused_ ? "the stop does not wait any longer" : "the peer did not end the connection in time");
    } else if ((state_ == State::kHandshake || state_ == State::kOpen) && line_.channel.empty()) {
        close(fmt::format("no bind frame within {} seconds", context_.options.handshake_seconds),
              "connections without a bind frame");
    }
}

void Connection::shake_hands(Clock::time_point now) {
    const StreamEnd end = stream_.handshake();
    want_write_ = end == StreamEnd::kWantWrite;
    if (end == StreamEnd::kDone) {
        state_ = State::kOpen;
        context_.journal.add("tls", line_.id, fmt::format(R"("session":"{}")", stream_.description()));
        if (context_.options.tls.late_ticket_ms >= 0) {
            ticket_at_ = now + std::chrono::milliseconds(context_.options.tls.late_ticket_ms);
        }
        misbehave(now);
    } else if (end != StreamEnd::kWantRead && end != StreamEnd::kWantWrite) {
        close(fmt::format("TLS handshake failed: {}", stream_.error().empty() ? "end of stream" : stream_.error()),
              "failed TLS handshakes");
    }
}

std::size_t Connection::read_limit(Clock::time_point now) const {
    std::uint64_t limit = ListenerContext::kChunk;
    if (state_ == State::kDropping) {
        return limit;
    }
    if (line_.channel.empty()) {
        // Nothing behind the bind frame: its channel decides when the rest is read.
        limit = received_ < sizeof(T_KAVRO_CHL_HDR) ? sizeof(T_KAVRO_CHL_HDR) - received_ : 1;
    }
    return awkward_.limit(limit, received_, now - started_);
}

void Connection::read(Clock::time_point now, std::size_t most) {
    const std::size_t limit = std::min(read_limit(now), most);
    if (limit == 0) {
        return;
    }
    const std::span<char> room = std::span(context_.chunk).first(limit);
    std::size_t filled = 0;
    StreamEnd end = StreamEnd::kDone;
    do {
        std::size_t count = 0;
        end = stream_.read(room.subspan(filled), count);
        filled += count;
        // A TLS read gives one record at most: small pieces are gathered.
    } while (end == StreamEnd::kDone && filled < limit && context_.tls != nullptr);
    if (filled > 0) {
        last_bytes_ = reading_time_.at(now);
        received_ += filled;
        if (received_ - progress_bytes_ >= kProgress) {
            progress_bytes_ = received_;
            progress_at_ = now;
        }
        context_.bytes += filled;
        if (state_ != State::kDropping) {
            feed(room.first(filled), now);
            misbehave(now);
        }
    }
    if (!reading() || end == StreamEnd::kDone || end == StreamEnd::kWantRead || end == StreamEnd::kWantWrite) {
        return;
    }
    if (paused_) {
        return; // the end of the stream is seen again when the bytes before it are stored
    }
    if (end != StreamEnd::kEof) {
        close("reading failed: " + stream_.error());
    } else if (context_.tls != nullptr && received_ == 0) {
        close(
            "the sender ended the connection after the TLS handshake without a word: its log tells whether it refuses "
            "the certificate of this listener");
    } else {
        close("the peer ended the connection");
    }
}

void Connection::misbehave(Clock::time_point now) {
    if (state_ != State::kOpen) {
        return;
    }
    switch (awkward_.due(received_)) {
    case Awkward::Act::kNone:
        return;
    case Awkward::Act::kReset:
        stream_.reset_on_close();
        close(fmt::format("reset on purpose after {} bytes", received_), {});
        return;
    case Awkward::Act::kEnd:
        stream_.finish_sending(awkward_.ends_with_alert());
        state_ = State::kDropping;
        deadline_ = reading_time_.at(now) + kDropTime;
        listen_log(fmt::format("connection {}: end of stream on purpose after {} bytes", line_.id, received_));
        return;
    case Awkward::Act::kStall:
        state_ = State::kSilent;
        listen_log(fmt::format("connection {}: stalled on purpose after {} bytes", line_.id, received_));
        return;
    }
}

void Connection::feed(std::span<const char> bytes, Clock::time_point now) {
    const FeedEnd end = splitter_.feed(bytes, *this);
    switch (end) {
    case FeedEnd::kHungry:
    case FeedEnd::kStopped: // no call below stops it
        return;
    case FeedEnd::kPaused:
        // `bytes` lies in the shared chunk or at the end of left_ itself.
        left_ = std::vector<char>(bytes.begin(), bytes.end());
        pause(incoming_.trouble().empty() ? now : now + kRetryPause);
        return;
    case FeedEnd::kBroken:
        close(fmt::format("malformed stream at byte {}: {}", splitter_.error().offset, splitter_.error().reason),
              "malformed streams");
        return;
    }
}

void Connection::pause(Clock::time_point retry) {
    paused_ = true;
    retry_at_ = retry;
}

void Connection::resume(Clock::time_point now) {
    paused_ = false;
    if (incoming_.complete_waits() && !hand_over()) {
        pause(now + kRetryPause);
        return;
    }
    const std::vector<char> bytes = std::exchange(left_, {});
    feed(bytes, now);
}

void Connection::ask_to_end(Clock::duration time, const std::string& why, Clock::time_point now) {
    if (state_ == State::kEnding) {
        return;
    }
    if (state_ == State::kHandshake && stream_.answered() && unread() > 0) {
        shake_hands(now); // the sender may have done its part, and written messages behind it
    }
    if (state_ != State::kOpen || (line_.channel.empty() && unread() == 0)) {
        close(why);
        return;
    }
    // No closing alert: the peer would not read it, and a close with unread bytes resets the connection.
    stream_.finish_sending(awkward_.ends_with_alert());
    state_ = State::kEnding;
    deadline_ = reading_time_.at(now) + time;
}

void Connection::close(const std::string& reason, std::string_view cause) {
    if (state_ == State::kClosed) {
        return;
    }
    const bool by_peer = splitter_.error().reason.empty();
    // Behind a failure of the stream comes nothing that could be read.
    const std::size_t readable = stream_.error().empty() ? unread() : 0;
    const std::size_t lost = by_peer && takes_in() ? left_.size() + readable : 0;
    state_ = State::kClosed;
    const std::string cut =
        by_peer && !splitter_.at_boundary() ? fmt::format(", cut {}: discarded", splitter_.position()) : "";
    line_.log(fmt::format("{}{}; {} messages, {} bytes{}{}", reason, cut, incoming_.count(), received_,
                          line_.channel.empty() ? "" : ", channel ", line_.channel),
              cause);
    incoming_.abandon(by_peer);
    if (lost > 0) {
        line_.log(fmt::format("{} bytes are lost: they had come and were not taken in", lost), {});
        context_.lost_bytes += lost;
    }
    context_.journal.add("end", line_.id,
                         fmt::format(R"("reason":"{}","whole":{},"messages":{},"bytes":{})", escaped(reason),
                                     splitter_.at_boundary(), incoming_.count(), received_));
}

bool Connection::on_bind(std::string_view channel) {
    line_.channel = escaped(channel);
    sender_ = fmt::format("{}/{}", line_.channel, host());
    ++context_.binds;
    line_.log(fmt::format("bound by channel {}, {}", line_.channel, stream_.description()), "connections bound");
    context_.journal.add("bind", line_.id, fmt::format(R"("channel":"{}")", line_.channel));
    if (awkward_.answer() > 0) {
        stream_.send_some(std::string(awkward_.answer(), 'x'));
    }
    return true;
}

bool Connection::on_heartbeat() {
    context_.journal.add("heartbeat", line_.id, "");
    return true;
}

bool Connection::on_message(const WireMessage& message) {
    incoming_.begin(message);
    return true;
}

bool Connection::on_file_begin(std::size_t index, std::uint64_t length) {
    incoming_.begin_file(index, length);
    return true;
}

Flow Connection::on_file_bytes(std::span<const char>& bytes) {
    return incoming_.take_file_bytes(bytes) ? Flow::kGoOn : Flow::kPause;
}

bool Connection::on_file_end() {
    incoming_.end_file();
    return true;
}

Flow Connection::on_message_complete() {
    if (!hand_over()) {
        return Flow::kPause;
    }
    if (context_.delivery.full() && !context_.delivery.flush()) {
        return Flow::kPause;
    }
    return Clock::now() < turn_end_ ? Flow::kGoOn : Flow::kPause;
}

bool Connection::hand_over() {
    if (!incoming_.complete()) {
        return false;
    }
    progress_at_ = Clock::now();
    progress_bytes_ = received_;
    return true;
}

} // namespace kvr
