// SPDX-License-Identifier: MIT
#include "connection.h"

#include <algorithm>
#include <cstring>

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

AwkwardOptions switches_for(const ListenerOptions& options, std::uint64_t id) {
    AwkwardOptions switches = options.awkward;
    const bool good = (switches.first != 0 && id > switches.first) || (switches.step != 0 && id % 2 == 0);
    if (good) {
        return {};
    }
    for (std::optional<std::uint64_t>* at : {&switches.close_after, &switches.reset_after, &switches.stall_after}) {
        if (*at) {
            **at += id / 2 * switches.step;
        }
    }
    return switches;
}

} // namespace

Connection::Connection(std::uint64_t id, UniqueFd fd, std::string peer, ListenerContext& context)
    : id_(id), peer_(std::move(peer)), context_(context), stream_(std::move(fd), context.tls),
      awkward_(switches_for(context.options, id)), started_(Clock::now()),
      deadline_(std::chrono::seconds(context.options.handshake_seconds)), progress_at_(started_) {
    context_.journal.add("connect", id_, fmt::format(R"("peer":"{}")", peer_));
    if (context_.journal.enabled()) {
        digest_ = std::make_unique<Sha256>();
    }
    if (awkward_.no_handshake) {
        state_ = State::kSilent;
    } else if (context.tls == nullptr) {
        state_ = State::kOpen;
        reach_switch(started_);
    }
}

short Connection::events(Clock::time_point now) const {
    switch (state_) {
    case State::kHandshake:
        return static_cast<short>(want_write_ ? POLLOUT : POLLIN);
    case State::kOpen:
    case State::kDraining:
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
    if (state_ == State::kDraining || state_ == State::kDropping ||
        (state_ != State::kSilent && state_ != State::kClosed && channel_.empty())) {
        next = std::min(next, reading_time_.when(deadline_));
    }
    if (!is_read_) {
        return next;
    }
    if (paused_) {
        next = std::min(next, retry_at_);
    } else if (awkward_.read_rate != 0 && reading()) {
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
    if (state_ == State::kDraining || state_ == State::kDropping) {
        close(paused_ ? "the stop does not wait any longer" : "the peer did not end the connection in time");
    } else if ((state_ == State::kHandshake || state_ == State::kOpen) && channel_.empty()) {
        close(fmt::format("no bind frame within {} seconds", context_.options.handshake_seconds),
              "connections without a bind frame");
    }
}

void Connection::shake_hands(Clock::time_point now) {
    const StreamEnd end = stream_.handshake();
    want_write_ = end == StreamEnd::kWantWrite;
    if (end == StreamEnd::kDone) {
        state_ = State::kOpen;
        context_.journal.add("tls", id_, fmt::format(R"("session":"{}")", stream_.description()));
        if (context_.options.tls.late_ticket_ms >= 0) {
            ticket_at_ = now + std::chrono::milliseconds(context_.options.tls.late_ticket_ms);
        }
        reach_switch(now);
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
    if (channel_.empty()) {
        // Nothing behind the bind frame: its channel decides when the rest is read.
        limit = received_ < sizeof(T_KAVRO_CHL_HDR) ? sizeof(T_KAVRO_CHL_HDR) - received_ : 1;
    }
    for (const auto& at : {awkward_.close_after, awkward_.reset_after, awkward_.stall_after}) {
        if (at) {
            limit = std::min(limit, *at - received_);
        }
    }
    if (awkward_.read_rate != 0) {
        const double seconds = std::chrono::duration<double>(now - started_).count();
        const auto allowed = static_cast<std::uint64_t>(seconds * static_cast<double>(awkward_.read_rate));
        limit = allowed > received_ ? std::min(limit, allowed - received_) : 0;
    }
    return limit;
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
            reach_switch(now);
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

void Connection::reach_switch(Clock::time_point now) {
    if (state_ != State::kOpen) {
        return;
    }
    if (awkward_.reset_after == received_) {
        stream_.reset_on_close();
        close(fmt::format("reset on purpose after {} bytes", received_), {});
    } else if (awkward_.close_after == received_) {
        stream_.finish_sending(awkward_.close_notify);
        state_ = State::kDropping;
        deadline_ = reading_time_.at(now) + kDropTime;
        listen_log(fmt::format("connection {}: end of stream on purpose after {} bytes", id_, received_));
    } else if (awkward_.stall_after == received_) {
        state_ = State::kSilent;
        listen_log(fmt::format("connection {}: stalled on purpose after {} bytes", id_, received_));
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
        pause(file_trouble_.empty() ? now : now + kRetryPause);
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
    if (complete_waits_ && !store_files()) {
        pause(now + kRetryPause);
        return;
    }
    const std::vector<char> bytes = std::exchange(left_, {});
    feed(bytes, now);
}

void Connection::drain(Clock::duration time, const std::string& why, Clock::time_point now) {
    if (state_ == State::kDraining) {
        return;
    }
    if (state_ == State::kHandshake && stream_.answered() && unread() > 0) {
        shake_hands(now); // the sender may have done its part, and written messages behind it
    }
    if (state_ != State::kOpen || (channel_.empty() && unread() == 0)) {
        close(why);
        return;
    }
    // No closing alert: the peer would not read it, and a close with unread bytes resets the connection.
    stream_.finish_sending(awkward_.close_notify);
    state_ = State::kDraining;
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
    log(fmt::format("{}{}; {} messages, {} bytes{}{}", reason, cut, messages_, received_,
                    channel_.empty() ? "" : ", channel ", channel_),
        cause);
    if (complete_waits_ && by_peer) {
        message_.lost = true;
        drop_files();
        hand_over();
    }
    if (lost > 0) {
        log(fmt::format("{} bytes are lost: they had come and were not taken in", lost), {});
        context_.lost_bytes += lost;
    }
    context_.journal.add("end", id_,
                         fmt::format(R"("reason":"{}","whole":{},"messages":{},"bytes":{})", escaped(reason),
                                     splitter_.at_boundary(), messages_, received_));
    drop_files();
}

/// Those of a message that is not handed over.
void Connection::drop_files() {
    std::vector<IncomingFile>().swap(files_);
    for (const std::string& file : message_.files) {
        context_.spool->remove(file);
    }
    message_.files.clear();
}

void Connection::log(std::string_view text, std::string_view cause) const {
    listen_log(fmt::format("connection {} from {}: {}", id_, peer_, text), cause, host());
}

bool Connection::on_bind(std::string_view channel) {
    channel_ = escaped(channel);
    sender_ = fmt::format("{}/{}", channel_, host());
    ++context_.binds;
    log(fmt::format("bound by channel {}, {}", channel_, stream_.description()), "connections bound");
    context_.journal.add("bind", id_, fmt::format(R"("channel":"{}")", channel_));
    if (awkward_.send > 0) {
        stream_.send_some(std::string(awkward_.send, 'x'));
    }
    return true;
}

bool Connection::on_heartbeat() {
    context_.journal.add("heartbeat", id_, "");
    return true;
}

bool Connection::on_message(const WireMessage& message) {
    message_ = {};
    message_.connection = id_;
    message_.peer = host();
    message_.queue = message.queue;
    message_.descriptor = message.descriptor;
    if (!context_.delivery.has_home(message_.queue)) {
        drop_reason_ = "no such queue and no dead-letter queue (DEADQ of the queue manager): define one of them";
    }
    is_file_ = message.is_file();
    body_length_ = message.body.size();
    if (digest_) {
        digest_->add(message.body);
        body_digest_ = digest_->finish();
    }
    files_.clear();
    facts_.clear();
    if (keeps() && !is_file_) {
        message_.data.assign(message.body.begin(), message.body.end());
    }
    const auto expect_file = [this](std::string_view name) {
        facts_.push_back({std::string(name), {}, 0, {}});
        if (keeps()) {
            files_.emplace_back(*context_.spool, std::string(name));
        }
    };
    std::for_each(message.attachments.begin(), message.attachments.end(), expect_file);
    if (is_file_) {
        expect_file(message.file_name);
    }
    kept_ = kept_by_message();
    return true;
}

std::size_t Connection::kept_by_message() const {
    std::size_t size =
        message_.data.capacity() + files_.capacity() * sizeof(IncomingFile) + facts_.capacity() * sizeof(FileFacts);
    for (const FileFacts& file : facts_) {
        size += 2 * file.name.capacity(); // the file that is coming in has it as well
    }
    return size;
}

bool Connection::on_file_begin(std::size_t index, std::uint64_t length) {
    facts_[index].length = length;
    current_file_ = index;
    return true;
}

Flow Connection::on_file_bytes(std::span<const char>& bytes) {
    const std::span<const char> offered = bytes;
    IncomingFile* failed = nullptr;
    if (!keeps() || context_.files_given_up) {
        bytes = {};
    } else if (current_file_ > 0 && !files_[current_file_ - 1].finish()) {
        failed = &files_[current_file_ - 1]; // one open file at a time
    } else if (!files_[current_file_].write(bytes)) {
        failed = &files_[current_file_];
    }
    if (failed != nullptr && !judge_file_trouble(*failed)) {
        failed = nullptr;
        bytes = {};
    }
    spooled_ += keeps() ? offered.size() - bytes.size() : 0;
    if (digest_) {
        digest_->add(offered.first(offered.size() - bytes.size()));
    }
    if (failed == nullptr) {
        no_room_ = false;
        return Flow::kGoOn;
    }
    return Flow::kPause;
}

bool Connection::on_file_end() {
    if (digest_) {
        facts_[current_file_].digest = digest_->finish();
    }
    if (keeps() && !context_.files_given_up) {
        (void)files_[current_file_].finish(); // when it fails, the next file or store_files tries it again
    }
    return true;
}

Flow Connection::on_message_complete() {
    if (!store_files()) {
        return Flow::kPause;
    }
    if (context_.delivery.full() && !context_.delivery.flush()) {
        return Flow::kPause;
    }
    return Clock::now() < turn_end_ ? Flow::kGoOn : Flow::kPause;
}

/// Says what is wrong. Whether it can be tried again; if not, the message is dropped.
bool Connection::judge_file_trouble(const IncomingFile& file) {
    const std::string trouble = file.trouble();
    if (!file.retry_helps()) {
        drop_reason_ = "a file of it cannot be stored " + trouble;
        drop_files();
        spooled_ = 0;
        return false;
    }
    if (file_trouble_ != trouble) {
        log(fmt::format("cannot store a file {}, reading stops until it works", trouble), "files not stored");
    }
    file_trouble_ = trouble;
    no_room_ = file.no_room();
    return true;
}

/// Gives the files of the complete message their names and hands the message over. False: it waits until they can be
/// stored (complete_waits_).
bool Connection::store_files() {
    if (context_.files_given_up && !files_.empty()) {
        message_.lost = true;
        drop_files();
        hand_over();
        return true;
    }
    for (std::size_t i = message_.files.size(); i < files_.size(); ++i) {
        std::string path = files_[i].finish() ? files_[i].publish() : std::string();
        complete_waits_ = path.empty() && judge_file_trouble(files_[i]);
        if (path.empty() && !complete_waits_) {
            break; // it is dropped
        }
        if (path.empty()) {
            return false;
        }
        facts_[i].path = path;
        message_.files.push_back(std::move(path));
    }
    std::vector<IncomingFile>().swap(files_);
    if (!file_trouble_.empty() && !message_.files.empty()) {
        file_trouble_.clear();
        no_room_ = false;
        log("files can be stored again", "files stored again");
    }
    message_.attachments = message_.files;
    if (is_file_ && !message_.files.empty()) {
        message_.data.assign(message_.files.back().begin(), message_.files.back().end());
        message_.attachments.pop_back();
    }
    hand_over();
    return true;
}

void Connection::hand_over() {
    complete_waits_ = false;
    kept_ = 0;
    spooled_ = 0;
    progress_at_ = Clock::now();
    progress_bytes_ = received_;
    ++messages_;
    if (context_.journal.enabled()) {
        message_.journal = message_facts();
    }
    std::vector<FileFacts>().swap(facts_);
    if (drop_reason_.empty()) {
        context_.delivery.add(std::exchange(message_, {}));
    } else {
        context_.delivery.drop(std::exchange(message_, {}), std::exchange(drop_reason_, {}));
    }
}

std::string Connection::message_facts() const {
    std::string text = fmt::format(
        R"("seq":{},"channel":"{}","queue":"{}","msgid":"{}","type":{},"code":{},"flags":{},"file_message":{},)"
        R"("length":{},"sha256":"{}","files":[)",
        messages_, channel_, escaped(message_.queue), escaped_field(message_.descriptor.sMsgId),
        message_.descriptor.iMsgType, message_.descriptor.iMsgCode, message_.descriptor.iMsgFlags, is_file_,
        body_length_, body_digest_);
    for (const FileFacts& file : facts_) {
        text += fmt::format(R"({}{{"name":"{}","path":"{}","length":{},"sha256":"{}"}})", text.back() == '[' ? "" : ",",
                            escaped(file.name), escaped(file.path), file.length, file.digest);
    }
    return text + "]";
}

} // namespace kvr
