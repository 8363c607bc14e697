// SPDX-License-Identifier: MIT
#include "message_text.h"

#include <fmt/format.h>

#include "descriptor.h"
#include "destination.h"

namespace kvr {
namespace {

constexpr std::size_t kMaxShownBinary = 4096;

std::string line(std::string_view label, std::string_view value) {
    return value.empty() ? fmt::format("  {}:\n", label)
                         : fmt::format("  {:<18}{}\n", fmt::format("{}:", label), value);
}

std::string data_text(std::string_view body, DataForm form) {
    if (form == DataForm::kHex) {
        return hex_dump(body);
    }
    if (!is_text(body)) {
        return printable(body.substr(0, kMaxShownBinary)) +
               (body.size() <= kMaxShownBinary
                    ? "\n"
                    : fmt::format("\n... ({} bytes in all: --hex shows them, 'kvr get' with --raw or --out FILE takes "
                                  "them)\n",
                                  body.size()));
    }
    return body.ends_with('\n') ? std::string(body) : std::string(body) + "\n";
}

} // namespace

bool is_long_binary(const ShownMessage& message) {
    const std::string_view body = destination_of(message.data) ? message.data.substr(kXmitHeaderSize) : message.data;
    return body.size() > kMaxShownBinary && !is_text(body);
}

std::string message_text(const ShownMessage& message, DataForm form) {
    const auto destination = destination_of(message.data);
    const std::string_view body = destination ? message.data.substr(kXmitHeaderSize) : message.data;
    std::string out = message.sequence ? fmt::format("message {}", *message.sequence) : std::string("message");
    out += message.state.empty() ? "\n" : fmt::format(" ({})\n", message.state);
    if (!message.used_at.empty()) {
        out += line("used at", message.used_at);
    }
    if (const std::uint32_t times = message.given_back.value_or(0); times > 0) {
        out += line("given back", times == 1 ? "once" : fmt::format("{} times", times));
    }
    for (const DescriptorField& field : descriptor_fields()) {
        out += line(field.label, printable(field_text(message.descriptor, field)));
    }
    out += line("destination", destination ? destination_text(*destination) : "none: no transmission header");
    for (const std::string& path : message.attachments) {
        out += line("attachment", printable(path));
    }
    out += line("data length", destination ? fmt::format("{} after a header of {}", body.size(), kXmitHeaderSize)
                                           : std::to_string(body.size()));
    if (form != DataForm::kNone && !body.empty()) {
        out += "data:\n" + data_text(body, form);
    }
    return out;
}

Json message_json(const ShownMessage& message, DataForm form) {
    const auto destination = destination_of(message.data);
    const std::string_view body = destination ? message.data.substr(kXmitHeaderSize) : message.data;
    Json json;
    if (message.sequence) {
        json["sequence"] = *message.sequence;
    }
    if (!message.state.empty()) {
        json["state"] = message.state;
    }
    if (!message.used_at.empty()) {
        json["used_at"] = message.used_at;
    }
    if (message.given_back) {
        json["given_back"] = *message.given_back;
    }
    for (const DescriptorField& field : descriptor_fields()) {
        if (field.kind == FieldKind::kNumber) {
            json[std::string(field.name)] = field_number(message.descriptor, field);
        } else {
            json[std::string(field.name)] = field_text(message.descriptor, field);
        }
    }
    json["destination"] = nullptr;
    if (destination) {
        json["destination"] = {{"queue", destination->queue}, {"qmgr", destination->qmgr}};
    }
    json["attachments"] = message.attachments;
    json["length"] = body.size();
    if (form != DataForm::kNone) {
        const bool text = is_text(body);
        json["data_encoding"] = text ? "text" : "base64";
        json["data"] = text ? std::string(body) : base64(body);
    }
    return json;
}

} // namespace kvr
