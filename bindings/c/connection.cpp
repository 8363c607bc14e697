// SPDX-License-Identifier: MIT
// Connections of kvr.h: from the C caller's arguments to the session, and back.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <tuple>
#include <utility>

#include "border.h"
#include "message.h"
#include "session.h"
#include "store/home.h"
#include "this_process.h"

using kvr::at_border;
using kvr::Errc;
using kvr::refuse;
using kvr::text_given;

struct kvr_qm {
    explicit kvr_qm(std::shared_ptr<kvr::Store> store) : session(std::move(store)) {}

    const pid_t process = kvr::this_process();
    kvr::Session session;
    // Room that is used again and again: of a get, of puts.
    kvr::TakenMessage taken;
    std::vector<T_KAVRO_MD> completed;
    std::vector<kvr::OutgoingMessage> outgoing;
};

namespace {

/// Longest time that is counted: the clock's own end is near beyond it.
constexpr std::int64_t kLongestWait = std::chrono::milliseconds(std::chrono::years(10)).count();

bool is_of_this_process(const kvr_qm& qm) {
    return qm.process == kvr::this_process();
}

kvr_qm& checked(kvr_qm* qm) {
    if (qm == nullptr) {
        refuse(Errc::kInvalid, "the connection is null: open one first");
    }
    return *qm;
}

/// Runs the work with the session, if that is this process's.
template <class Work>
int with_session(kvr_qm* qm, Work work) noexcept {
    return at_border([&]() -> int {
        if (!is_of_this_process(checked(qm))) {
            return kvr::tell_result(KVR_E_FORKED, "the connection belongs to the process that opened it, of which this "
                                                  "one is a fork: open another one here");
        }
        return work(qm->session);
    });
}

bool in_unit(unsigned flags) {
    if ((flags & ~KVR_UNIT) != 0) {
        refuse(Errc::kInvalid, "flags other than KVR_UNIT are not known");
    }
    return flags == KVR_UNIT;
}

std::optional<kvr::MessageId> id_given(const void* id, std::size_t size) {
    if (id == nullptr) {
        return std::nullopt;
    }
    kvr::MessageId wanted{};
    if (size > wanted.size()) {
        refuse(Errc::kTooLong, "an id has at most " + std::to_string(wanted.size()) + " bytes");
    }
    std::memcpy(wanted.data(), id, size);
    return wanted;
}

kvr::GetRequest request_from(const kvr_get_options* given) {
    const kvr_get_options options = given != nullptr ? *given : kvr_get_options KVR_GET_OPTIONS;
    if (options.size != sizeof options) {
        refuse(Errc::kInvalid, "the options are of another size: begin with KVR_GET_OPTIONS, of this library's kvr.h");
    }
    if (options.wait_ms < KVR_FOREVER) {
        refuse(Errc::kInvalid, "a wait takes milliseconds, or KVR_FOREVER");
    }
    kvr::GetRequest request;
    request.selection = {id_given(options.message_id, options.message_id_size),
                         id_given(options.correlation_id, options.correlation_id_size)};
    if (options.wait_ms != KVR_FOREVER) {
        request.wait = std::chrono::milliseconds(std::min(options.wait_ms, kLongestWait));
    }
    request.in_unit = in_unit(options.flags);
    request.max_tries = options.max_tries;
    if (options.max_tries > 0) {
        request.aside = text_given(options.aside, "max_tries is set, but the queue aside");
    }
    return request;
}

void put(kvr_qm& qm, const std::string& queue, std::span<kvr_message* const> messages, bool in_unit) {
    qm.completed.clear();
    qm.outgoing.clear();
    qm.completed.reserve(messages.size()); // so that none moves
    for (const kvr_message* const message : messages) {
        if (message == nullptr) {
            refuse(Errc::kInvalid, "a message is null: make it first");
        }
        T_KAVRO_MD& descriptor = qm.completed.emplace_back(message->given);
        kvr::complete_descriptor(descriptor, program_invocation_short_name);
        qm.outgoing.push_back({&descriptor, message->attachments, message->content});
    }
    const auto show = [&] {
        for (std::size_t i = 0; i < messages.size(); ++i) {
            messages[i]->shown = qm.completed[i];
        }
    };
    try {
        qm.session.put(queue, qm.outgoing, in_unit);
    } catch (const kvr::Error& error) {
        if (error.code() == Errc::kUnknown) {
            show(); // by its id a message can be looked for
        }
        throw;
    }
    show();
}

} // namespace

int kvr_open(const char* home, const char* qmgr, kvr_qm** out) {
    return at_border([&] {
        if (out == nullptr) {
            refuse(Errc::kInvalid, "kvr_open: out is null");
        }
        const auto folder = kvr::find_qmgr_folder(home != nullptr ? home : "", qmgr != nullptr ? qmgr : "");
        *out = new kvr_qm(kvr::Store::open(folder));
    });
}

void kvr_close(kvr_qm* qm) {
    if (qm != nullptr && is_of_this_process(*qm)) { // a fork's copy stays: its locks and files are the parent's
        delete qm;
    }
}

const char* kvr_name(const kvr_qm* qm) {
    return qm->session.store().qmgr().c_str();
}

int kvr_interrupt(kvr_qm* qm) {
    // For signal handlers: no text, no memory.
    if (qm == nullptr) {
        return KVR_E_INVALID;
    }
    if (!is_of_this_process(*qm)) {
        return KVR_E_FORKED;
    }
    qm->session.interrupt();
    return KVR_OK;
}

int kvr_put(kvr_qm* qm, const char* queue, kvr_message* message, unsigned flags) {
    return kvr_put_many(qm, queue, &message, 1, flags);
}

int kvr_put_many(kvr_qm* qm, const char* queue, kvr_message* const* messages, size_t count, unsigned flags) {
    return with_session(qm, [&](kvr::Session& /*of qm*/) {
        const std::string name = text_given(queue, "the queue's name");
        if (messages == nullptr && count > 0) {
            refuse(Errc::kInvalid, "the messages are null, their count is not 0");
        }
        put(*qm, name, {messages, count}, in_unit(flags));
        return KVR_OK;
    });
}

int kvr_get(kvr_qm* qm, const char* queue, const kvr_get_options* options, kvr_message* message) {
    return with_session(qm, [&](kvr::Session& session) {
        const std::string name = text_given(queue, "the queue's name");
        if (message == nullptr) {
            refuse(Errc::kInvalid, "the message is null: make one first");
        }
        switch (session.get(name, request_from(options), qm->taken)) {
        case kvr::Taken::kMessage:
            message->swap_in(qm->taken);
            return int{KVR_OK};
        case kvr::Taken::kInterrupted:
            return kvr::tell_result(KVR_INTERRUPTED, "the wait for a message was interrupted: get again to go on");
        case kvr::Taken::kNone:
            break;
        }
        return kvr::tell_result(KVR_NONE, "no message that was asked for came in the time given");
    });
}

int kvr_commit(kvr_qm* qm) {
    return with_session(qm, [](kvr::Session& session) {
        session.commit();
        return KVR_OK;
    });
}

int kvr_rollback(kvr_qm* qm) {
    return with_session(qm, [](kvr::Session& session) {
        session.rollback();
        return KVR_OK;
    });
}

int kvr_release(kvr_qm* qm, const char* queue) {
    return with_session(qm, [&](kvr::Session& session) {
        session.release(text_given(queue, "the queue's name"));
        return KVR_OK;
    });
}

int kvr_browse(kvr_qm* qm, const char* queue, uint64_t from, kvr_message* message) {
    return with_session(qm, [&](kvr::Session& session) {
        const std::string name = text_given(queue, "the queue's name");
        if (message == nullptr) {
            refuse(Errc::kInvalid, "the message is null: make one first");
        }
        std::optional<std::pair<bool, bool>> found; // in hand, held
        session.store().browse(name, from, [&](const kvr::StoredMessage& shown) {
            qm->taken = {shown.sequence, shown.descriptor, shown.attachments,
                         std::string(shown.data.begin(), shown.data.end()), shown.given_back};
            found = {shown.in_hand, shown.held};
            return false;
        });
        if (!found) {
            return kvr::tell_result(KVR_NONE, "there is no message at this place or behind it");
        }
        message->swap_in(qm->taken);
        std::tie(message->in_hand, message->held) = *found;
        return int{KVR_OK};
    });
}

int kvr_depth(kvr_qm* qm, const char* queue, uint64_t* messages, uint64_t* bytes) {
    return with_session(qm, [&](kvr::Session& session) {
        const kvr::QueueInfo info = session.store().queue_info(text_given(queue, "the queue's name"));
        if (messages != nullptr) {
            *messages = info.depth;
        }
        if (bytes != nullptr) {
            *bytes = info.bytes;
        }
        return KVR_OK;
    });
}
