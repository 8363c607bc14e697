// SPDX-License-Identifier: MIT
#include "wire_fields.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

namespace kvr {

std::optional<long> parse_number(std::span<const char> field) {
    long value = 0;
    for (const char digit : field) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        value = value * 10 + (digit - '0');
    }
    return value;
}

std::optional<long> parse_signed_number(std::span<const char> field) {
    if (field.size() < 2 || field.front() != '-') {
        return parse_number(field);
    }
    const std::optional<long> value = parse_number(field.subspan(1));
    return value ? std::optional<long>(-*value) : std::nullopt;
}

std::optional<std::string_view> parse_padded_text(std::span<const char> field) {
    const auto end = std::find(field.begin(), field.end(), '\0');
    if (std::any_of(end, field.end(), [](char c) { return c != '\0'; })) {
        return std::nullopt;
    }
    return std::string_view(field.data(), static_cast<std::size_t>(end - field.begin()));
}

namespace {

int from_wire(int value) {
    return static_cast<int>(ntohl(static_cast<std::uint32_t>(value)));
}

template <std::size_t N>
void copy_raw(char (&to)[N], const char (&from)[N]) {
    std::memcpy(to, from, N);
}

} // namespace

T_KAVRO_MD decode_descriptor(std::span<const char, sizeof(T_KAVRO_CHL_MD)> block) {
    T_KAVRO_CHL_MD wire;
    std::memcpy(&wire, block.data(), sizeof wire);
    T_KAVRO_MD md{};
    std::memcpy(md.sStrucId, "MD  ", sizeof md.sStrucId);
    md.iVersion = 2;
    copy_raw(md.sMsgId, wire.sMsgId);
    copy_raw(md.sCorrelId, wire.sCorrelId);
    md.cMsgStoreType = wire.cMsgStoreType;
    md.iUsage = from_wire(wire.iUsage);
    md.iMsgFlags = from_wire(wire.iMsgFlags);
    md.iExpiry = from_wire(wire.iExpiry);
    md.iFeedback = from_wire(wire.iFeedback);
    md.iEncoding = from_wire(wire.iEncoding);
    md.iCodedCharSetId = from_wire(wire.iCodedCharSetId);
    md.iPriority = from_wire(wire.iPriority);
    md.iPersistence = from_wire(wire.iPersistence);
    md.iMsgSeqNo = from_wire(wire.iMsgSeqNo);
    md.iReportOpt = from_wire(wire.iReportOpt);
    copy_raw(md.sFmtName, wire.sFmtName);
    copy_raw(md.sReplyToQ, wire.sReplyToQ);
    copy_raw(md.sReplyToQMgr, wire.sReplyToQMgr);
    copy_raw(md.sGroupId, wire.sGroupId);
    md.iPutApplType = from_wire(wire.iPutApplType);
    copy_raw(md.sPutApplName, wire.sPutApplName);
    copy_raw(md.sPutDate, wire.sPutDate);
    copy_raw(md.sPutTime, wire.sPutTime);
    return md;
}

std::string escaped(std::string_view bytes) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7e || c == '%' || c == '"' || c == '\\') {
            text += {'%', kHex[byte >> 4], kHex[byte & 15]};
        } else {
            text += c;
        }
    }
    return text;
}

std::string escaped_field(std::span<const char> field) {
    std::size_t length = field.size();
    while (length > 0 && field[length - 1] == '\0') {
        --length;
    }
    return escaped({field.data(), length});
}

} // namespace kvr
