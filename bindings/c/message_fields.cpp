// SPDX-License-Identifier: MIT
// Fields of a message's descriptor as kvr.h has them.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "border.h"
#include "message.h"
#include "store/text_field.h"

using kvr::at_border;
using kvr::Errc;
using kvr::refuse;

namespace {

enum class Kind { kBytes, kText, kDigits, kNumber };

struct Field {
    kvr_field name;
    const char* label;
    Kind kind;
    std::size_t offset;
    std::size_t size; ///< greatest one; of digits the only one
};

#define KVR_PLACE(member, less) offsetof(T_KAVRO_MD, member), sizeof(T_KAVRO_MD::member) - (less)
constexpr Field kFields[] = {
    {KVR_MESSAGE_ID, "message id", Kind::kBytes, KVR_PLACE(sMsgId, 0)},
    {KVR_CORRELATION_ID, "correlation id", Kind::kBytes, KVR_PLACE(sCorrelId, 0)},
    {KVR_GROUP_ID, "group id", Kind::kBytes, KVR_PLACE(sGroupId, 0)},
    {KVR_FORMAT, "format", Kind::kText, KVR_PLACE(sFmtName, 1)},
    {KVR_REPLY_QUEUE, "reply queue", Kind::kText, KVR_PLACE(sReplyToQ, 1)},
    {KVR_REPLY_QMGR, "reply queue manager", Kind::kText, KVR_PLACE(sReplyToQMgr, 1)},
    {KVR_APPLICATION, "application", Kind::kText, KVR_PLACE(sPutApplName, 1)},
    {KVR_PUT_DATE, "put date", Kind::kDigits, KVR_PLACE(sPutDate, 1)},
    {KVR_PUT_TIME, "put time", Kind::kDigits, KVR_PLACE(sPutTime, 1)},
    {KVR_TYPE, "type", Kind::kNumber, KVR_PLACE(iMsgType, 0)},
    {KVR_CODE, "code", Kind::kNumber, KVR_PLACE(iMsgCode, 0)},
    {KVR_USAGE, "usage", Kind::kNumber, KVR_PLACE(iUsage, 0)},
    {KVR_EXPIRY, "expiry", Kind::kNumber, KVR_PLACE(iExpiry, 0)},
    {KVR_FEEDBACK, "feedback", Kind::kNumber, KVR_PLACE(iFeedback, 0)},
    {KVR_ENCODING, "encoding", Kind::kNumber, KVR_PLACE(iEncoding, 0)},
    {KVR_CCSID, "character set", Kind::kNumber, KVR_PLACE(iCodedCharSetId, 0)},
    {KVR_PRIORITY, "priority", Kind::kNumber, KVR_PLACE(iPriority, 0)},
    {KVR_PERSISTENCE, "persistence", Kind::kNumber, KVR_PLACE(iPersistence, 0)},
    {KVR_SEQUENCE_NUMBER, "sequence number", Kind::kNumber, KVR_PLACE(iMsgSeqNo, 0)},
    {KVR_REPORT, "report", Kind::kNumber, KVR_PLACE(iReportOpt, 0)},
    {KVR_APPLICATION_TYPE, "application type", Kind::kNumber, KVR_PLACE(iPutApplType, 0)},
};
#undef KVR_PLACE
static_assert(std::size(kFields) > kvr::kByteFields && kFields[kvr::kByteFields].kind == Kind::kNumber &&
              kFields[kvr::kByteFields - 1].kind != Kind::kNumber);

const Field* find(kvr_field name, bool number) {
    const auto* const found =
        std::find_if(std::begin(kFields), std::end(kFields), [&](const Field& field) { return field.name == name; });
    return found != std::end(kFields) && (found->kind == Kind::kNumber) == number ? found : nullptr;
}

/// Both of the message's descriptors get the field's bytes, padded with NULs.
void write(kvr_message* message, const Field* field, std::string_view bytes) {
    if (message == nullptr || field == nullptr) {
        refuse(Errc::kInvalid, message == nullptr ? "the message is null: make one first"
                                                  : "there is no such field of this kind: see enum kvr_field");
    }
    for (T_KAVRO_MD* descriptor : {&message->given, &message->shown}) {
        kvr::fill_text(static_cast<char*>(static_cast<void*>(descriptor)) + field->offset, field->size, bytes);
    }
}

const char* place_in(const kvr_message& message, const Field& field) {
    return static_cast<const char*>(static_cast<const void*>(&message.shown)) + field.offset;
}

void check(const Field& field, std::string_view bytes) {
    const std::string what = std::string("the ") + field.label;
    if (bytes.size() > field.size) {
        refuse(Errc::kTooLong,
               what + " has " + std::to_string(bytes.size()) + " bytes: use at most " + std::to_string(field.size));
    }
    if (field.kind == Kind::kDigits && !bytes.empty() &&
        (bytes.size() != field.size || bytes.find_first_not_of("0123456789") != std::string_view::npos)) {
        refuse(Errc::kInvalid, what + " has exactly " + std::to_string(field.size) + " digits");
    }
    if (field.kind == Kind::kText && bytes.find('\0') != std::string_view::npos) {
        refuse(Errc::kInvalid, what + " is a text: a NUL ends it");
    }
}

} // namespace

int kvr_message_set_bytes(kvr_message* message, kvr_field field, const void* bytes, size_t size) {
    return at_border([&] {
        if (bytes == nullptr && size > 0) {
            refuse(Errc::kInvalid, "the bytes are null, their size is not 0");
        }
        const Field* const found = find(field, false);
        const std::string_view value{static_cast<const char*>(bytes), size};
        if (found != nullptr) {
            check(*found, value);
        }
        write(message, found, value);
    });
}

const char* kvr_message_bytes(const kvr_message* message, kvr_field field, size_t* size) {
    const Field* const found = find(field, false);
    const std::string_view whole = found != nullptr ? std::string_view(place_in(*message, *found), found->size) : "";
    const std::size_t used = whole.find_last_not_of('\0') + 1;
    if (size != nullptr) {
        *size = used;
    }
    if (found == nullptr) {
        return nullptr;
    }
    kvr::ShownField& text = message->texts.at(static_cast<std::size_t>(found - std::begin(kFields)));
    kvr::fill_text(text.data(), text.size(), whole);
    return text.data();
}

int kvr_message_set_text(kvr_message* message, kvr_field field, const char* text) {
    return kvr_message_set_bytes(message, field, text, text != nullptr ? std::strlen(text) : 0);
}

const char* kvr_message_text(const kvr_message* message, kvr_field field) {
    return kvr_message_bytes(message, field, nullptr);
}

int kvr_message_set_number(kvr_message* message, kvr_field field, int32_t number) {
    return at_border([&] {
        std::string bytes(sizeof number, '\0');
        std::memcpy(bytes.data(), &number, sizeof number);
        write(message, find(field, true), bytes);
    });
}

int32_t kvr_message_number(const kvr_message* message, kvr_field field) {
    int32_t number = 0;
    if (const Field* const found = find(field, true)) {
        std::memcpy(&number, place_in(*message, *found), sizeof number);
    }
    return number;
}
