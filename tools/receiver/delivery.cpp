// SPDX-License-Identifier: MIT
#include "delivery.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

namespace {

/// What no time and no operator of the store can mend.
bool is_fault_of_message(Errc code) {
    return code == Errc::kNotFound || code == Errc::kInvalid || code == Errc::kTooLong || code == Errc::kTooLarge;
}

bool queue_exists(Store& store, const std::string& name) {
    try {
        (void)store.queue_info(name);
        return true;
    } catch (const Error& error) {
        if (is_fault_of_message(error.code())) {
            return false;
        }
        throw;
    }
}

std::string dead_letter_name(Store& store) {
    try {
        const Attributes attributes = store.object_get("QMGR", "QMGR");
        const auto name = attributes.find("DEADQ");
        return name == attributes.end() ? std::string() : name->second;
    } catch (const Error& error) {
        if (error.code() == Errc::kNotFound) {
            return {};
        }
        throw;
    }
}

} // namespace

Delivery::Delivery(std::shared_ptr<Store> store, Spool* spool, Journal& journal, std::uint64_t remember)
    : store_(std::move(store)), spool_(spool), journal_(journal), remember_(remember) {}

/// The queue itself, else the dead-letter queue, else nothing.
std::string Delivery::home_of(const std::string& queue) {
    const auto exists = [this](const std::string& candidate) {
        const auto known = known_.find(candidate);
        return known != known_.end() ? known->second
                                     : known_.emplace(candidate, queue_exists(*store_, candidate)).first->second;
    };
    if (!queue.empty() && exists(queue)) {
        return queue;
    }
    std::string dead_letter = dead_letter_name(*store_);
    return !dead_letter.empty() && exists(dead_letter) ? dead_letter : std::string();
}

bool Delivery::has_home(const std::string& queue) {
    if (group_.empty()) {
        known_.clear(); // an unfinished message brings no flush
    }
    try {
        if (store_ == nullptr || !home_of(queue).empty()) {
            return true;
        }
    } catch (const Error&) {
        return true;
    }
    known_.clear(); // no flush follows, and the next message may find what was defined meanwhile
    return false;
}

void Delivery::add(ReceivedMessage message) {
    if (message.lost || given_up_) {
        lose(message);
        return;
    }
    bytes_ += sizeof(Queued) + message.data.size() + message.journal.size() + message.queue.size();
    for (const std::string& file : message.files) {
        bytes_ += 2 * (sizeof(std::string) + file.size()); // it is most often an attachment as well
    }
    group_.push_back({std::move(message), {}, false, false, false});
}

void Delivery::find_homes() {
    for (Queued& queued : group_) {
        if (!queued.home.empty()) {
            continue;
        }
        std::string home = home_of(queued.message.queue);
        if (home.empty() || home == queued.message.queue) {
            queued.home = queued.message.queue; // where there is none, the put fails and tells
        } else {
            address_dead_letter(queued, std::move(home));
        }
    }
}

void Delivery::address_dead_letter(Queued& queued, std::string dead_letter) {
    T_KAVRO_HDR_XMITQ header{};
    std::memcpy(header.sStrucId, "XTMH", sizeof header.sStrucId);
    header.iVersion = 1;
    const std::string& queue = queued.message.queue;
    std::memcpy(header.sDestQ, queue.data(), std::min(queue.size(), sizeof header.sDestQ));
    const std::string& qmgr = store_->qmgr();
    std::memcpy(header.sDestQMgr, qmgr.data(), std::min(qmgr.size(), sizeof header.sDestQMgr));
    std::vector<char>& data = queued.message.data;
    data.insert(data.begin(), sizeof header, '\0');
    std::memcpy(data.data(), &header, sizeof header);
    queued.home = std::move(dead_letter);
    queued.dead_letter = true;
}

bool Delivery::flush() {
    if (store_ == nullptr || given_up_) {
        discard();
        return true;
    }
    try {
        if (!group_.empty()) {
            spool_->sync();
            find_homes();
        }
        while (!group_.empty()) {
            put_group(std::string(group_.front().home));
        }
    } catch (const Error& error) {
        if (trouble_ != error.what()) {
            listen_log(fmt::format("cannot deliver, {} messages wait and reading stops until it works: {}",
                                   group_.size(), error.what()));
        }
        trouble_ = error.what();
        known_.clear();
        return false;
    }
    if (!trouble_.empty()) {
        listen_log("delivery works again");
    }
    trouble_.clear();
    bytes_ = 0;
    known_.clear();
    journal_.flush();
    return true;
}

void Delivery::give_up() {
    given_up_ = true;
    for (const Queued& queued : std::exchange(group_, {})) {
        lose(queued.message);
    }
    bytes_ = 0;
}

void Delivery::lose(const ReceivedMessage& message) {
    if (++lost_ <= kMaxNamed) {
        listen_log(fmt::format("connection {}: lost: the message {} for queue '{}', {} files of it are in the spool",
                               message.connection, escaped_field(message.descriptor.sMsgId), escaped(message.queue),
                               message.files.size()));
    }
    journal_.add("lost", message.connection, message.journal);
}

void Delivery::discard() {
    for (Queued& queued : group_) {
        done(queued);
    }
    group_.clear();
    bytes_ = 0;
    journal_.flush();
}

/// Puts the messages of the group that have this home, or the first of them for which there is room, and takes them out
/// of the group.
void Delivery::put_group(const std::string& home) {
    std::vector<Queued*> messages;
    for (Queued& queued : group_) {
        if (queued.home == home) {
            messages.push_back(&queued);
        }
    }
    for (;;) {
        try {
            put(home, messages);
            break;
        } catch (const Error& error) {
            if (messages.size() == 1) {
                if (!is_fault_of_message(error.code())) {
                    throw;
                }
                refuse(*messages.front(), error);
                return;
            }
            if (!is_fault_of_message(error.code()) && error.code() != Errc::kFull) {
                throw;
            }
            // A store that is nearly full takes a part of them; a message that cannot be put hides among them.
            messages.resize(messages.size() / 2);
        }
    }
    for (Queued* const queued : messages) {
        done(*queued);
    }
    std::erase_if(group_, [](const Queued& queued) { return queued.done; });
}

void Delivery::put(const std::string& home, const std::vector<Queued*>& messages) {
    std::vector<OutgoingMessage> outgoing;
    outgoing.reserve(messages.size());
    for (const Queued* queued : messages) {
        outgoing.push_back({&queued->message.descriptor, queued->message.attachments, queued->message.data});
    }
    if (remember_ == 0) {
        store_->put(home, outgoing);
        return;
    }
    std::vector<MessageIdentity> identities;
    identities.reserve(messages.size());
    for (const Queued* queued : messages) {
        identities.push_back(queued->message.identity);
    }
    const std::vector<bool> put = store_->put_once(home, outgoing, identities, remember_);
    for (std::size_t i = 0; i < messages.size(); ++i) {
        messages[i]->repeat = !put[i];
    }
}

void Delivery::drop(const ReceivedMessage& message, std::string_view reason) {
    const std::string_view cause = ++dropped_ <= kMaxNamed ? "" : "messages dropped";
    listen_log(fmt::format("connection {}: dropped: the message {} for queue '{}': {}", message.connection,
                           escaped_field(message.descriptor.sMsgId), escaped(message.queue), reason),
               cause, message.peer);
    journal_.add("dropped", message.connection, message.journal);
    drop_files(message);
}

void Delivery::drop_files(const ReceivedMessage& message) {
    for (const std::string& file : message.files) {
        spool_->remove(file);
    }
}

void Delivery::leave_out(const ReceivedMessage& message) {
    ++repeats_;
    listen_log(fmt::format("connection {}: repeat left out: the message {} for queue '{}' came before",
                           message.connection, escaped_field(message.descriptor.sMsgId), escaped(message.queue)),
               "repeats left out", message.peer);
    drop_files(message);
    journal_.add("repeat", message.connection, message.journal);
}

/// A message that its queue will never take: the dead-letter queue is tried once.
void Delivery::refuse(Queued& queued, const Error& error) {
    known_.clear();
    std::string dead_letter = dead_letter_name(*store_);
    if (!dead_letter.empty() && queued.home != dead_letter && queue_exists(*store_, dead_letter)) {
        address_dead_letter(queued, std::move(dead_letter));
        return;
    }
    drop(queued.message, error.what());
    group_.erase(group_.begin() + (&queued - group_.data()));
}

void Delivery::done(Queued& queued) {
    queued.done = true;
    if (queued.repeat) {
        leave_out(queued.message);
        return;
    }
    ++delivered_;
    ReceivedMessage& message = queued.message;
    if (queued.dead_letter) {
        ++dead_lettered_;
        message.journal += R"(,"dead_letter":true)";
        listen_log(fmt::format("connection {}: queue '{}' of {} does not exist or refuses the message: it went to the "
                               "dead-letter queue {}",
                               message.connection, escaped(message.queue), store_->qmgr(), queued.home),
                   "messages for unknown queues", message.peer);
    }
    journal_.add("message", message.connection, message.journal);
}

} // namespace kvr
