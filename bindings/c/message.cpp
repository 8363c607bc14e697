// SPDX-License-Identifier: MIT
// Messages of kvr.h but for their fields: data, destination, files, and what a queue says of them.
#include "message.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "border.h"
#include "store/message_record.h"
#include "store/names.h"
#include "store/text_field.h"

using kvr::at_border;
using kvr::Errc;
using kvr::refuse;

namespace {

kvr_message& checked(kvr_message* message) {
    return message != nullptr ? *message : throw kvr::Error(Errc::kInvalid, "the message is null: make one first");
}

std::string number(std::size_t count) {
    return std::to_string(count);
}

/// A full path of at most so many bytes.
std::string checked_path(const char* given, std::size_t longest) {
    std::string path = kvr::text_given(given, "the path of the file");
    if (!path.starts_with('/')) {
        refuse(Errc::kInvalid, "the channel reads the file later, from its own folder: give its full path, from / on");
    }
    if (path.size() > longest) {
        refuse(Errc::kTooLong,
               "the path of the file has " + number(path.size()) + " bytes: use at most " + number(longest));
    }
    return path;
}

/// Names that another system has chosen: a slash is allowed as well.
void check_destination(const char* what, std::string name) {
    if (name.size() > kvr::kMaxQueueName) {
        refuse(Errc::kTooLong, std::string("the name of the ") + what + " has " + number(name.size()) +
                                   " bytes: use at most " + number(kvr::kMaxQueueName));
    }
    std::replace(name.begin(), name.end(), '/', '_');
    kvr::check_name(what, name, kvr::kMaxQueueName);
}

void set_content(kvr_message& message, char store_type, std::string_view content) {
    const std::size_t most = KVR_MAX_MESSAGE - message.header_size();
    if (content.size() > most) {
        refuse(Errc::kTooLarge, "data of " + number(content.size()) + " bytes is too large: a message takes " +
                                    number(most) + "; send more as a file (kvr_message_attach)");
    }
    message.content.replace(message.header_size(), std::string::npos, content);
    message.given.cMsgStoreType = message.shown.cMsgStoreType = store_type;
}

} // namespace

void kvr_message::read_header() noexcept {
    has_header = content.size() >= kvr::kXmitHeaderSize && content.starts_with("XTMH");
    destination_queue = destination_qmgr = {};
    if (has_header) {
        constexpr std::size_t kName = sizeof T_KAVRO_HDR_XMITQ::sDestQ;
        std::memcpy(destination_queue.data(), content.data() + offsetof(T_KAVRO_HDR_XMITQ, sDestQ), kName);
        std::memcpy(destination_qmgr.data(), content.data() + offsetof(T_KAVRO_HDR_XMITQ, sDestQMgr), kName);
    }
}

void kvr_message::swap_in(kvr::TakenMessage& taken) noexcept {
    given = shown = taken.descriptor;
    content.swap(taken.data);
    attachments.swap(taken.attachments);
    place = taken.sequence;
    given_back = taken.given_back;
    in_hand = held = false;
    read_header();
}

int kvr_message_new(kvr_message** out) {
    return at_border([&] {
        if (out == nullptr) {
            refuse(Errc::kInvalid, "kvr_message_new: out is null");
        }
        *out = new kvr_message;
    });
}

void kvr_message_free(kvr_message* message) {
    delete message;
}

void kvr_message_clear(kvr_message* message) {
    kvr::TakenMessage blank;
    blank.descriptor = kvr::blank_descriptor();
    blank.data.swap(message->content);
    blank.attachments.swap(message->attachments);
    blank.data.clear();
    blank.attachments.clear();
    message->swap_in(blank);
}

int kvr_message_set_data(kvr_message* message, const void* data, size_t size) {
    return at_border([&] {
        if (data == nullptr && size > 0) {
            refuse(Errc::kInvalid, "the data is null, its size is not 0");
        }
        set_content(checked(message), KVR_STORE_DATA, {static_cast<const char*>(data), size});
    });
}

const void* kvr_message_data(const kvr_message* message, size_t* size) {
    if (size != nullptr) {
        *size = message->content.size() - message->header_size();
    }
    return message->content.data() + message->header_size();
}

int kvr_message_set_destination(kvr_message* message, const char* queue, const char* qmgr) {
    return at_border([&] {
        kvr_message& target = checked(message);
        std::string header;
        if (queue != nullptr && *queue != '\0') {
            const kvr::Destination destination{queue, qmgr != nullptr ? qmgr : ""};
            check_destination("destination queue", destination.queue);
            if (!destination.qmgr.empty()) {
                check_destination("destination queue manager", destination.qmgr);
            }
            header = kvr::xmit_header(destination);
        } else if (qmgr != nullptr && *qmgr != '\0') {
            refuse(Errc::kInvalid, "a destination has a queue: name it, too");
        }
        if (target.content.size() - target.header_size() + header.size() > KVR_MAX_MESSAGE) {
            refuse(Errc::kTooLarge, "the data leaves no room for the " + number(kvr::kXmitHeaderSize) +
                                        " bytes of a destination: send it as a file (kvr_message_attach)");
        }
        target.content.replace(0, target.header_size(), header);
        target.read_header();
    });
}

const char* kvr_message_destination_queue(const kvr_message* message) {
    return message->destination_queue.data();
}

const char* kvr_message_destination_qmgr(const kvr_message* message) {
    return message->destination_qmgr.data();
}

int kvr_message_attach(kvr_message* message, const char* path) {
    return at_border([&] {
        kvr_message& target = checked(message);
        if (target.attachments.size() >= KVR_MAX_ATTACHMENTS) {
            refuse(Errc::kTooLarge, "a message takes at most " + number(KVR_MAX_ATTACHMENTS) + " files");
        }
        target.attachments.push_back(checked_path(path, KVR_MAX_PATH));
    });
}

size_t kvr_message_attachments(const kvr_message* message) {
    return message->attachments.size();
}

const char* kvr_message_attachment(const kvr_message* message, size_t index) {
    return index < message->attachments.size() ? message->attachments[index].c_str() : nullptr;
}

int kvr_message_set_file(kvr_message* message, const char* path) {
    return at_border([&] {
        kvr_message& target = checked(message);
        set_content(target, KVR_STORE_FILE, checked_path(path, KVR_MAX_FILE_PATH));
    });
}

const char* kvr_message_file(const kvr_message* message) {
    return message->shown.cMsgStoreType == KVR_STORE_FILE ? message->content.c_str() + message->header_size() : nullptr;
}

uint64_t kvr_message_place(const kvr_message* message) {
    return message->place;
}

uint32_t kvr_message_given_back(const kvr_message* message) {
    return message->given_back;
}

int kvr_message_is_in_hand(const kvr_message* message) {
    return message->in_hand ? 1 : 0;
}

int kvr_message_is_held(const kvr_message* message) {
    return message->held ? 1 : 0;
}

static_assert(KVR_MAX_MESSAGE == kvr::kMaxMessage && KVR_MAX_ATTACHMENTS == KVR_ACC_MAX &&
              KVR_MAX_PATH == kvr::kMaxAttachmentPath);
