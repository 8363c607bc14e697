// SPDX-License-Identifier: MIT
// Queues for programs in C++17: owners, texts and exceptions over kvr.h, whose promises about units of work, threads,
// fork and signals hold here as they stand there.
//
//     kvr::app::Connection qm;
//     qm.put("ORDERS", kvr::app::Message("hello"));
//
//     kvr::app::Message order;
//     kvr::app::Unit unit(qm);
//     if (unit.get("ORDERS", order, {kvr::app::kForever}) == kvr::app::Got::kMessage) {
//         unit.put("ANSWERS", kvr::app::Message("done"));
//         unit.commit(); // otherwise its end rolls back
//     }
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kvr.h"

namespace kvr::app {

/// A call that failed: one of the negative kvr_result, and the text that says what to do. KVR_E_MEMORY is a
/// std::bad_alloc instead.
class Error : public std::runtime_error {
  public:
    Error(int code, const std::string& text) : std::runtime_error(text), code_(code) {}
    [[nodiscard]] int code() const noexcept { return code_; }

  private:
    int code_;
};

/// Throws for a result that is an error.
inline int checked(int result) {
    if (result == KVR_E_MEMORY) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw Error(result, kvr_error());
    }
    return result;
}

/// A message: blank, or as it was taken. What it shows is valid until it is changed or destroyed.
class Message {
  public:
    Message() {
        kvr_message* made = nullptr;
        checked(kvr_message_new(&made));
        handle_.reset(made);
    }
    explicit Message(std::string_view bytes) : Message() { data(bytes); }
    [[nodiscard]] kvr_message* handle() const noexcept { return handle_.get(); }
    void clear() noexcept { kvr_message_clear(handle()); }

    void data(std::string_view bytes) { checked(kvr_message_set_data(handle(), bytes.data(), bytes.size())); }
    [[nodiscard]] std::string_view data() const noexcept {
        std::size_t size = 0;
        const void* const bytes = kvr_message_data(handle(), &size);
        return {static_cast<const char*>(bytes), size};
    }
    /// Fields of bytes and texts; nothing unsets.
    void set(kvr_field field, std::string_view bytes) {
        checked(kvr_message_set_bytes(handle(), field, bytes.data(), bytes.size()));
    }
    [[nodiscard]] std::string_view get(kvr_field field) const noexcept {
        std::size_t size = 0;
        const char* const bytes = kvr_message_bytes(handle(), field, &size);
        return {bytes != nullptr ? bytes : "", size};
    }
    void set_number(kvr_field field, std::int32_t number) { checked(kvr_message_set_number(handle(), field, number)); }
    [[nodiscard]] std::int32_t number(kvr_field field) const noexcept { return kvr_message_number(handle(), field); }
    [[nodiscard]] std::string_view id() const noexcept { return get(KVR_MESSAGE_ID); }
    [[nodiscard]] std::string_view correlation_id() const noexcept { return get(KVR_CORRELATION_ID); }

    /// An empty queue unsets.
    void destination(const std::string& queue, const std::string& qmgr = {}) {
        checked(kvr_message_set_destination(handle(), queue.c_str(), qmgr.c_str()));
    }
    [[nodiscard]] std::string_view destination_queue() const noexcept {
        return kvr_message_destination_queue(handle());
    }
    [[nodiscard]] std::string_view destination_qmgr() const noexcept { return kvr_message_destination_qmgr(handle()); }

    void attach(const std::string& path) { checked(kvr_message_attach(handle(), path.c_str())); }
    [[nodiscard]] std::vector<std::string> attachments() const {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < kvr_message_attachments(handle()); ++i) {
            paths.emplace_back(kvr_message_attachment(handle(), i));
        }
        return paths;
    }
    void file(const std::string& path) { checked(kvr_message_set_file(handle(), path.c_str())); }
    /// Empty for a message that is no file message.
    [[nodiscard]] std::string_view file() const noexcept {
        const char* const path = kvr_message_file(handle());
        return path != nullptr ? path : "";
    }

    [[nodiscard]] std::uint64_t place() const noexcept { return kvr_message_place(handle()); }
    [[nodiscard]] std::uint32_t given_back() const noexcept { return kvr_message_given_back(handle()); }
    [[nodiscard]] bool is_in_hand() const noexcept { return kvr_message_is_in_hand(handle()) != 0; }
    [[nodiscard]] bool is_held() const noexcept { return kvr_message_is_held(handle()) != 0; }

  private:
    struct Free {
        void operator()(kvr_message* message) const noexcept { kvr_message_free(message); }
    };
    std::unique_ptr<kvr_message, Free> handle_;
};

constexpr std::chrono::milliseconds kForever{KVR_FOREVER};

/// What a get looks for; see kvr_get_options.
struct Wanted {
    std::chrono::milliseconds wait{0};
    std::optional<std::string_view> message_id = {};
    std::optional<std::string_view> correlation_id = {};
    std::uint32_t max_tries = 0;
    std::string aside = {};
};

enum class Got { kMessage = KVR_OK, kNone = KVR_NONE, kInterrupted = KVR_INTERRUPTED };

/// A queue manager, for one thread at a time. Each put and get alone; Unit has those that happen together.
class Connection {
  public:
    /// Empty: as kvr_open says.
    explicit Connection(const std::string& home = {}, const std::string& qmgr = {}) {
        kvr_qm* opened = nullptr;
        checked(kvr_open(home.c_str(), qmgr.c_str(), &opened));
        handle_.reset(opened);
    }
    [[nodiscard]] kvr_qm* handle() const noexcept { return handle_.get(); }
    [[nodiscard]] std::string_view name() const noexcept { return kvr_name(handle()); }

    void put(const std::string& queue, const Message& message) { put(queue, message, 0); }
    /// All of them or none. Pointers, because messages are not copied.
    void put(const std::string& queue, const std::vector<const Message*>& messages) {
        std::vector<kvr_message*> all;
        for (const Message* const message : messages) {
            all.push_back(message->handle());
        }
        checked(kvr_put_many(handle(), queue.c_str(), all.data(), all.size(), 0));
    }
    Got get(const std::string& queue, Message& message, const Wanted& wanted = {}) {
        return get(queue, message, wanted, 0);
    }
    void release(const std::string& queue) { checked(kvr_release(handle(), queue.c_str())); }
    /// False where there is none from this place on.
    bool browse(const std::string& queue, std::uint64_t from, Message& message) {
        return checked(kvr_browse(handle(), queue.c_str(), from, message.handle())) == KVR_OK;
    }
    [[nodiscard]] std::uint64_t depth(const std::string& queue) const {
        std::uint64_t messages = 0;
        checked(kvr_depth(handle(), queue.c_str(), &messages, nullptr));
        return messages;
    }
    /// For any thread and for signal handlers.
    void interrupt() noexcept { static_cast<void>(kvr_interrupt(handle())); }

  private:
    friend class Unit;
    void put(const std::string& queue, const Message& message, unsigned flags) {
        checked(kvr_put(handle(), queue.c_str(), message.handle(), flags));
    }
    Got get(const std::string& queue, Message& message, const Wanted& wanted, unsigned flags) {
        kvr_get_options options = KVR_GET_OPTIONS;
        options.flags = flags;
        options.wait_ms = wanted.wait.count();
        if (wanted.message_id) {
            options.message_id = wanted.message_id->data();
            options.message_id_size = wanted.message_id->size();
        }
        if (wanted.correlation_id) {
            options.correlation_id = wanted.correlation_id->data();
            options.correlation_id_size = wanted.correlation_id->size();
        }
        options.max_tries = wanted.max_tries;
        options.aside = wanted.aside.c_str();
        return static_cast<Got>(checked(kvr_get(handle(), queue.c_str(), &options, message.handle())));
    }
    struct Close {
        void operator()(kvr_qm* qm) const noexcept { kvr_close(qm); }
    };
    std::unique_ptr<kvr_qm, Close> handle_;
};

/// The connection's unit of work: rolled back at its end, unless it was committed. One at a time.
class Unit {
  public:
    explicit Unit(Connection& qm) noexcept : qm_(qm) {}
    ~Unit() { rollback(); }
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    void put(const std::string& queue, const Message& message) { qm_.put(queue, message, KVR_UNIT); }
    Got get(const std::string& queue, Message& message, const Wanted& wanted = {}) {
        return qm_.get(queue, message, wanted, KVR_UNIT);
    }
    /// Afterwards the next unit begins.
    void commit() { checked(kvr_commit(qm_.handle())); }
    void rollback() noexcept { static_cast<void>(kvr_rollback(qm_.handle())); }

  private:
    Connection& qm_;
};

} // namespace kvr::app
