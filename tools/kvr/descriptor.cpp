// SPDX-License-Identifier: MIT
#include "descriptor.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

#include "commands.h"
#include "output.h"
#include "store/text_field.h"

namespace kvr {
namespace {

#define KVR_FIELD(member) offsetof(T_KAVRO_MD, member), sizeof(T_KAVRO_MD::member)
constexpr DescriptorField kFields[] = {
    {"type", "message type", FieldKind::kNumber, KVR_FIELD(iMsgType), "Message type"},
    {"code", "message code", FieldKind::kNumber, KVR_FIELD(iMsgCode), "Message code"},
    {"msgid", "message id", FieldKind::kId, KVR_FIELD(sMsgId), "Message id (default: a unique one)"},
    {"correlid", "correlation id", FieldKind::kId, KVR_FIELD(sCorrelId), "Correlation id"},
    {"store-type", "storage type", FieldKind::kChar, KVR_FIELD(cMsgStoreType), ""},
    {"usage", "usage", FieldKind::kNumber, KVR_FIELD(iUsage), "Usage"},
    {"flags", "flags", FieldKind::kNumber, KVR_FIELD(iMsgFlags), "Flag bits; bit 4 belongs to --attach"},
    {"expiry", "expiry", FieldKind::kNumber, KVR_FIELD(iExpiry), "Expiry; carried, not enforced"},
    {"feedback", "feedback", FieldKind::kNumber, KVR_FIELD(iFeedback), "Feedback code"},
    {"encoding", "encoding", FieldKind::kNumber, KVR_FIELD(iEncoding), "Encoding of numbers in the data"},
    {"ccsid", "character set", FieldKind::kNumber, KVR_FIELD(iCodedCharSetId), "Coded character set id of the data"},
    {"priority", "priority", FieldKind::kNumber, KVR_FIELD(iPriority), "Priority; carried, messages leave in order"},
    {"persistence", "persistence", FieldKind::kNumber, KVR_FIELD(iPersistence), "Persistence; all messages are kept"},
    {"seqno", "sequence number", FieldKind::kNumber, KVR_FIELD(iMsgSeqNo), "Sequence number in a group"},
    {"report", "report options", FieldKind::kNumber, KVR_FIELD(iReportOpt), "Report options"},
    {"format", "format", FieldKind::kText, KVR_FIELD(sFmtName), "Format name"},
    {"reply-to-q", "reply-to queue", FieldKind::kText, KVR_FIELD(sReplyToQ), "Reply-to queue"},
    {"reply-to-qmgr", "reply-to manager", FieldKind::kText, KVR_FIELD(sReplyToQMgr), "Reply-to queue manager"},
    {"group-id", "group id", FieldKind::kId, KVR_FIELD(sGroupId), "Group id"},
    {"appl-type", "application type", FieldKind::kNumber, KVR_FIELD(iPutApplType), "Type of the putting application"},
    {"appl-name", "application name", FieldKind::kText, KVR_FIELD(sPutApplName), "Putting application (default: kvr)"},
    {"put-date", "put date", FieldKind::kDigits, KVR_FIELD(sPutDate), "Put date, YYYYMMDD (default: today, UTC)"},
    {"put-time", "put time", FieldKind::kDigits, KVR_FIELD(sPutTime), "Put time, HHMMSS (default: now, UTC)"},
};
#undef KVR_FIELD

constexpr std::size_t kIdSize = sizeof(T_KAVRO_MD::sMsgId);

char* place(T_KAVRO_MD& descriptor, const DescriptorField& field) {
    return static_cast<char*>(static_cast<void*>(&descriptor)) + field.offset;
}

const char* place(const T_KAVRO_MD& descriptor, const DescriptorField& field) {
    return static_cast<const char*>(static_cast<const void*>(&descriptor)) + field.offset;
}

/// The bytes that hexadecimal digits stand for; false when they are not pairs of digits that fit an id.
bool parse_hex_id(std::string_view digits, std::array<char, kIdSize>& id) {
    if (digits.empty() || digits.size() % 2 != 0 || digits.size() > 2 * kIdSize) {
        return false;
    }
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        unsigned byte = 0;
        const char* const end = digits.data() + at + 2;
        const auto [rest, error] = std::from_chars(digits.data() + at, end, byte, 16);
        if (error != std::errc() || rest != end) {
            return false;
        }
        id.at(at / 2) = static_cast<char>(byte);
    }
    return true;
}

std::string id_text(std::string_view bytes) {
    const std::string_view used = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
    const bool plain = std::all_of(used.begin(), used.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (plain && !used.starts_with("0x")) {
        return std::string(used);
    }
    std::string hex = "0x";
    for (const char c : used) {
        hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    }
    return hex;
}

} // namespace

std::span<const DescriptorField> descriptor_fields() {
    return kFields;
}

std::string message_id_text(const T_KAVRO_MD& descriptor) {
    return id_text({descriptor.sMsgId, sizeof descriptor.sMsgId});
}

int field_number(const T_KAVRO_MD& descriptor, const DescriptorField& field) {
    int number = 0;
    std::memcpy(&number, place(descriptor, field), sizeof number);
    return number;
}

std::string field_text(const T_KAVRO_MD& descriptor, const DescriptorField& field) {
    const char* const source = place(descriptor, field);
    switch (field.kind) {
    case FieldKind::kNumber:
        return std::to_string(field_number(descriptor, field));
    case FieldKind::kId:
        return id_text({source, field.size});
    case FieldKind::kChar:
    case FieldKind::kText:
    case FieldKind::kDigits:
        break;
    }
    return field_string(source, field.size);
}

void set_field(T_KAVRO_MD& descriptor, const DescriptorField& field, const std::string& text) {
    char* const target = place(descriptor, field);
    const auto refuse = [&](const std::string& rule) {
        throw UsageError(fmt::format("--{} '{}' is not possible: {}", field.name, printable(text), rule));
    };
    if (field.kind == FieldKind::kNumber) {
        int number = 0;
        const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || rest != text.data() + text.size()) {
            refuse("give a whole number of 32 bits");
        }
        std::memcpy(target, &number, sizeof number);
        return;
    }
    if (field.kind == FieldKind::kId && text.starts_with("0x")) {
        std::array<char, kIdSize> id{};
        if (!parse_hex_id(std::string_view(text).substr(2), id)) {
            refuse("after 0x give pairs of hexadecimal digits, at most 64 digits");
        }
        std::memcpy(target, id.data(), kIdSize);
        return;
    }
    const std::size_t room = field.kind == FieldKind::kId ? field.size : field.size - 1;
    if (text.size() > room) {
        refuse(fmt::format("it has {} characters, use at most {}", text.size(), room));
    }
    if (field.kind == FieldKind::kDigits &&
        (text.size() != room || text.find_first_not_of("0123456789") != std::string::npos)) {
        refuse(fmt::format("give exactly {} digits", room));
    }
    fill_text(target, field.size, text);
}

} // namespace kvr
