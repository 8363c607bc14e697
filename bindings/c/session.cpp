// SPDX-License-Identifier: MIT
#include "session.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include <sys/eventfd.h>

#include "kvr.h"
#include "store/message_record.h"

namespace kvr {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Data of a unit whose memory serves the next one.
constexpr std::size_t kKept = 1U << 20U;

void give_back(Taker& taker, std::span<const std::uint64_t> sequences) noexcept {
    try {
        taker.give_back(sequences);
    } catch (const std::exception&) {
        // They come back when the taker ends, at the latest.
        return;
    }
}

UniqueFd make_event() {
    UniqueFd event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event) {
        throw Error(Errc::kIo,
                    "the process has no descriptor left for a connection: close some, or raise its limit (ulimit -n)");
    }
    return event;
}

} // namespace

Session::Session(std::shared_ptr<Store> store) : store_(std::move(store)), interrupt_(make_event()) {}

Session::~Session() {
    rollback();
}

void Session::put(const std::string& queue, std::span<const OutgoingMessage> messages, bool in_unit) {
    if (in_unit) {
        put_in_unit(queue, messages);
    } else if (!messages.empty()) {
        store_->put(queue, messages);
    }
}

void Session::put_in_unit(const std::string& queue, std::span<const OutgoingMessage> messages) {
    std::size_t bytes = 0;
    for (const OutgoingMessage& message : messages) {
        check_message(message);
        bytes += message.data.size();
    }
    check_room(messages.size(), bytes);
    if (queue != checked_queue_) {
        (void)store_->queue_info(queue); // throws when there is none
        checked_queue_ = queue;
    }
    std::size_t end = put_count_;
    for (const OutgoingMessage& message : messages) {
        Put& put = end < puts_.size() ? puts_[end] : puts_.emplace_back();
        put.queue = queue;
        put.descriptor = *message.descriptor;
        put.attachments.assign(message.attachments.begin(), message.attachments.end());
        put.data.assign(message.data.begin(), message.data.end());
        ++end;
    }
    put_count_ = end;
    put_bytes_ += bytes;
}

void Session::check_room(std::size_t messages, std::size_t bytes) const {
    if (put_count_ + taken_ + messages > KVR_MAX_UNIT_MESSAGES) {
        throw Error(Errc::kTooLarge, "a unit of work has at most " + std::to_string(KVR_MAX_UNIT_MESSAGES) +
                                         " messages: commit it, and go on in the next one");
    }
    if (put_bytes_ + bytes > KVR_MAX_UNIT_BYTES) {
        throw Error(Errc::kTooLarge, "a unit of work puts at most " + std::to_string(KVR_MAX_UNIT_BYTES) +
                                         " bytes: commit it, and go on in the next one");
    }
}

Taken Session::get(const std::string& queue, const GetRequest& request, TakenMessage& message) {
    if (request.in_unit) {
        check_room(1, 0);
    }
    check_aside(queue, request);
    Source& from = source(queue);
    const milliseconds longest = request.wait.value_or(milliseconds(0));
    const Clock::time_point until = longest.count() > 0 ? Clock::now() + longest : Clock::time_point();
    for (;;) {
        const Taken result = take(from, request, until, message);
        if (result != Taken::kMessage) {
            return result;
        }
        if (request.max_tries == 0 || message.given_back < request.max_tries) {
            break;
        }
        const OutgoingMessage as_it_is{&message.descriptor, message.attachments, message.data};
        const UnitPut put{request.aside, {&as_it_is, 1}};
        use_up(from, message.sequence, {&put, 1});
    }
    if (!request.in_unit) {
        use_up(from, message.sequence, {});
        return Taken::kMessage;
    }
    try {
        from.in_unit.push_back(message.sequence);
    } catch (...) {
        give_back(*from.taker, {&message.sequence, 1});
        throw;
    }
    ++taken_;
    return Taken::kMessage;
}

void Session::check_aside(const std::string& queue, const GetRequest& request) {
    if (request.max_tries == 0 || request.aside == checked_aside_) {
        return;
    }
    if (request.aside == queue) {
        throw Error(Errc::kInvalid, "what was tried too often cannot go aside to its own queue: name another one");
    }
    (void)store_->queue_info(request.aside); // told now, not when the first message is to go there
    checked_aside_ = request.aside;
}

Session::Source& Session::source(const std::string& queue) {
    const auto known = sources_.find(queue);
    if (known != sources_.end()) {
        return known->second;
    }
    return sources_.emplace(queue, Source{store_->take_from(queue), {}}).first->second;
}

Taken Session::take(const Source& from, const GetRequest& request, Clock::time_point until, TakenMessage& message) {
    TakeWait wait;
    wait.time = request.wait;
    if (request.wait && request.wait->count() > 0) {
        wait.time = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(until - Clock::now()));
    }
    // Who does not wait is not interrupted, but the next one that does.
    wait.interrupt = request.wait == milliseconds(0) ? -1 : interrupt_.get();
    const Taken result = from.taker->next(request.selection, wait, message);
    if (result == Taken::kInterrupted) {
        eventfd_t ignored = 0;
        (void)::eventfd_read(interrupt_.get(), &ignored);
    }
    return result;
}

void Session::use_up(const Source& from, std::uint64_t sequence, std::span<const UnitPut> puts) {
    const UnitTake take{from.taker.get(), {&sequence, 1}};
    try {
        store_->commit(puts, {&take, 1});
    } catch (...) {
        give_back(*from.taker, {&sequence, 1});
        throw;
    }
}

void Session::commit() {
    std::vector<OutgoingMessage> messages;
    messages.reserve(put_count_);
    std::vector<UnitPut> puts;
    for (const Put& put : std::span(puts_).first(put_count_)) {
        const OutgoingMessage& message =
            messages.emplace_back(OutgoingMessage{&put.descriptor, put.attachments, put.data});
        if (puts.empty() || puts.back().queue != put.queue) {
            puts.push_back({put.queue, {&message, 1}});
        } else {
            puts.back().messages = {puts.back().messages.data(), puts.back().messages.size() + 1};
        }
    }
    std::vector<UnitTake> takes;
    for (const auto& [queue, from] : sources_) {
        if (!from.in_unit.empty()) {
            takes.push_back({from.taker.get(), from.in_unit});
        }
    }
    if (puts.empty() && takes.empty()) {
        return;
    }
    try {
        store_->commit(puts, takes);
    } catch (const Error& error) {
        checked_queue_.clear(); // it may be gone
        if (error.code() == Errc::kUnknown) {
            rollback();
        }
        throw;
    }
    end_unit();
}

void Session::rollback() noexcept {
    for (auto& [queue, from] : sources_) {
        if (!from.in_unit.empty()) {
            give_back(*from.taker, from.in_unit);
        }
    }
    end_unit();
}

void Session::end_unit() noexcept {
    for (auto& [queue, from] : sources_) {
        from.in_unit.clear();
    }
    if (put_bytes_ > kKept) {
        puts_.clear();
    }
    put_count_ = 0;
    put_bytes_ = 0;
    taken_ = 0;
}

void Session::release(const std::string& queue) {
    const auto known = sources_.find(queue);
    if (known == sources_.end()) {
        return;
    }
    if (!known->second.in_unit.empty()) {
        throw Error(Errc::kBusy,
                    "the unit of work has messages of queue '" + queue + "': commit it or roll it back first");
    }
    sources_.erase(known);
}

void Session::interrupt() const noexcept {
    const int before = errno;
    (void)::eventfd_write(interrupt_.get(), 1);
    errno = before;
}

} // namespace kvr
