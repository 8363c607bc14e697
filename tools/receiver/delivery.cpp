// SPDX-License-Identifier: MIT
#include "delivery.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

namespace {

/// Errors that pass: space comes back, a medium recovers.
bool passes(Errc code) {
    return code == Errc::kFull || code == Errc::kIo;
}

bool queue_exists(Store& store, const std::string& name) {
    try {
        (void)store.queue_info(name);
        return true;
    } catch (const Error& error) {
        if (error.code() == Errc::kNotFound || error.code() == Errc::kInvalid || error.code() == Errc::kTooLong) {
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

Delivery::Delivery(std::shared_ptr<Store> store, Spool* spool, Journal& journal)
    : store_(std::move(store)), spool_(spool), journal_(journal) {}

Delivery::~Delivery() {
    for (const Queued& queued : group_) {
        for (const std::string& file : queued.message.files) {
            spool_->remove(file);
        }
    }
}

Delivery::Home Delivery::find_home(const std::string& queue, std::string& name) {
    const auto exists = [this](const std::string& candidate) {
        const auto known = known_.find(candidate);
        return known != known_.end() ? known->second
                                     : known_.emplace(candidate, queue_exists(*store_, candidate)).first->second;
    };
    name = queue;
    if (!queue.empty() && exists(queue)) {
        return Home::kQueue;
    }
    name = dead_letter_name(*store_);
    return !name.empty() && exists(name) ? Home::kDeadLetter : Home::kNone;
}

bool Delivery::has_home(const std::string& queue) {
    std::string name;
    return store_ == nullptr || find_home(queue, name) != Home::kNone;
}

void Delivery::add(ReceivedMessage message) {
    Queued queued{std::move(message), {}, false};
    if (store_ != nullptr) {
        // kNone is left to the put, which fails and tells.
        if (find_home(queued.message.queue, queued.home) == Home::kDeadLetter) {
            address_dead_letter(queued);
        }
    }
    bytes_ += queued.message.data.size() + sizeof(Queued);
    group_.push_back(std::move(queued));
}

void Delivery::address_dead_letter(Queued& queued) {
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
    queued.message.journal += R"(,"dead_letter":true)";
    ++dead_lettered_;
    listen_log(fmt::format("connection {}: no queue '{}' in {}: the message goes to the dead-letter queue {}",
                           queued.message.connection, escaped(queue), qmgr, queued.home));
}

bool Delivery::flush() {
    if (store_ == nullptr) {
        discard();
        return true;
    }
    try {
        if (!group_.empty()) {
            spool_->sync();
        }
        while (!group_.empty()) {
            put_group(std::string(group_.front().home));
        }
    } catch (const Error& error) {
        if (!passes(error.code())) {
            throw;
        }
        if (!blocked_) {
            listen_log(fmt::format("cannot deliver, {} messages wait and reading stops until it works: {}",
                                   group_.size(), error.what()));
        }
        blocked_ = true;
        return false;
    }
    if (blocked_) {
        listen_log("delivery works again");
    }
    blocked_ = false;
    bytes_ = 0;
    known_.clear();
    journal_.flush();
    return true;
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
                if (passes(error.code())) {
                    throw;
                }
                refuse(*messages.front(), error);
                return;
            }
            if (error.code() == Errc::kIo) {
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
    store_->put(home, outgoing);
}

/// A message that its queue will never take: the dead-letter queue is tried once, then its connection is told.
void Delivery::refuse(Queued& queued, const Error& error) {
    known_.clear();
    std::string dead_letter = dead_letter_name(*store_);
    if (!dead_letter.empty() && queued.home != dead_letter && queue_exists(*store_, dead_letter)) {
        queued.home = std::move(dead_letter);
        address_dead_letter(queued);
        return;
    }
    listen_log(fmt::format("connection {}: a message for queue '{}' is dropped and the connection closed: {}",
                           queued.message.connection, escaped(queued.message.queue), error.what()));
    failed_.push_back(queued.message.connection);
    for (const std::string& file : queued.message.files) {
        spool_->remove(file);
    }
    group_.erase(group_.begin() + (&queued - group_.data()));
}

void Delivery::done(Queued& queued) {
    queued.done = true;
    ++delivered_;
    journal_.add("message", queued.message.connection, queued.message.journal);
}

std::vector<std::uint64_t> Delivery::take_failed() {
    return std::exchange(failed_, {});
}

} // namespace kvr
