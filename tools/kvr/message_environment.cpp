// SPDX-License-Identifier: MIT
#include "message_environment.h"

#include <algorithm>
#include <map>
#include <string_view>

#include <unistd.h>

#include <fmt/format.h>

#include "descriptor.h"
#include "destination.h"

namespace kvr {
namespace {

constexpr const char* kAttachment = "KVR_ATTACHMENT_";

/// "reply-to-q" as KVR_REPLY_TO_Q.
std::string variable_of(std::string_view field) {
    std::string name = "KVR_" + std::string(field);
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
        return c == '-' ? '_' : c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return name;
}

std::map<std::string, std::string> attribute_values(const TakenView& message, const std::string& queue,
                                                    const Store& store) {
    std::map<std::string, std::string> values;
    for (const DescriptorField& field : kvr::descriptor_fields()) {
        values[variable_of(field.name)] = field_text(message.descriptor, field);
    }
    const auto destination = destination_of(message.data);
    values["KVR_DEST_QUEUE"] = destination ? destination->queue : "";
    values["KVR_DEST_QMGR"] = destination ? destination->qmgr : "";
    values["KVR_DATA_SIZE"] = std::to_string(message.data.size() - (destination ? kXmitHeaderSize : 0));
    values["KVR_ATTACHMENTS"] = std::to_string(message.attachments.size());
    for (std::size_t i = 0; i < message.attachments.size(); ++i) {
        values[fmt::format("{}{}", kAttachment, i + 1)] = message.attachments[i];
    }
    values["KVR_GIVEN_BACK"] = std::to_string(message.given_back.value_or(0));
    values["KVR_QUEUE"] = queue;
    values["KVR_HOME"] = store.dir().parent_path().native();
    values["KVR_QMGR"] = store.dir().filename().native();
    return values;
}

} // namespace

std::vector<std::string> message_environment(const TakenView& message, const std::string& queue, const Store& store) {
    const std::map<std::string, std::string> values = attribute_values(message, queue, store);
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (!text.starts_with(kAttachment) && !values.contains(std::string(text.substr(0, text.find('='))))) {
            all.emplace_back(text);
        }
    }
    for (const auto& [name, value] : values) {
        all.emplace_back(name).append("=").append(value);
    }
    return all;
}

} // namespace kvr
