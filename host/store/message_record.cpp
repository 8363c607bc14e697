// SPDX-License-Identifier: MIT
// A message as the store keeps it.
#include "store/message_record.h"

#include <cstring>

namespace kvr {

namespace {

constexpr std::uint32_t kRecordVersion = 1;

/// In the machine's byte order: a store stays on its machine.
struct RecordHeader {
    std::uint32_t version;
    std::uint16_t attachment_count;
    std::uint16_t attachment_bytes;
    std::uint32_t data_bytes;
};
static_assert(sizeof(RecordHeader) == 12);
static_assert(kDescriptorSize == 288);
static_assert(KVR_ACC_MAX * (sizeof(std::uint16_t) + kMaxAttachmentPath) <= UINT16_MAX);

std::size_t attachment_bytes(const OutgoingMessage& message) {
    std::size_t bytes = 0;
    for (const std::string& path : message.attachments) {
        bytes += sizeof(std::uint16_t) + path.size();
    }
    return bytes;
}

void clear_padding(char* descriptor) {
    constexpr std::size_t kAfterStoreType = offsetof(T_KAVRO_MD, cMsgStoreType) + 1;
    constexpr std::size_t kAfterPutTime = offsetof(T_KAVRO_MD, sPutTime) + sizeof(T_KAVRO_MD::sPutTime);
    constexpr std::size_t kAfterAppName = offsetof(T_KAVRO_MD, sGroupId) + sizeof(T_KAVRO_MD::sGroupId);
    std::memset(descriptor + kAfterStoreType, 0, offsetof(T_KAVRO_MD, iUsage) - kAfterStoreType);
    std::memset(descriptor + kAfterAppName, 0, offsetof(T_KAVRO_MD, iPutApplType) - kAfterAppName);
    std::memset(descriptor + kAfterPutTime, 0, kDescriptorSize - kAfterPutTime);
}

[[noreturn]] void damaged(const char* what) {
    throw Error(Errc::kDamaged, std::string("a stored message is damaged: ") + what);
}

} // namespace

void check_message(const OutgoingMessage& message) {
    if (message.descriptor == nullptr) {
        throw Error(Errc::kInvalid, "a message needs a descriptor");
    }
    if (message.data.size() > kMaxMessage) {
        throw Error(Errc::kTooLarge, "a message of " + std::to_string(message.data.size()) + " bytes is above the " +
                                         std::to_string(kMaxMessage) + " bytes that a channel carries");
    }
    if (message.attachments.size() > KVR_ACC_MAX) {
        throw Error(Errc::kTooLarge, "a message takes at most " + std::to_string(KVR_ACC_MAX) + " attached files");
    }
    for (const std::string& path : message.attachments) {
        if (path.empty() || path.find('\0') != std::string::npos) {
            throw Error(Errc::kInvalid, "the path of an attached file is empty or holds a NUL");
        }
        if (path.size() > kMaxAttachmentPath) {
            throw Error(Errc::kTooLarge,
                        "the path of an attached file is longer than " + std::to_string(kMaxAttachmentPath) + " bytes");
        }
    }
}

std::size_t encoded_size(const OutgoingMessage& message) {
    return sizeof(RecordHeader) + kDescriptorSize + attachment_bytes(message) + message.data.size();
}

void encode_message(const OutgoingMessage& message, char* out) {
    const RecordHeader header{kRecordVersion, static_cast<std::uint16_t>(message.attachments.size()),
                              static_cast<std::uint16_t>(attachment_bytes(message)),
                              static_cast<std::uint32_t>(message.data.size())};
    std::memcpy(out, &header, sizeof header);
    out += sizeof header;

    std::memcpy(out, message.descriptor, kDescriptorSize);
    clear_padding(out);
    KVRINT flags = message.descriptor->iMsgFlags;
    if (!message.attachments.empty()) {
        flags |= KVR_MSGFLAG_ACCESSORIES;
    }
    std::memcpy(out + offsetof(T_KAVRO_MD, iMsgFlags), &flags, sizeof flags);
    out += kDescriptorSize;

    for (const std::string& path : message.attachments) {
        const auto length = static_cast<std::uint16_t>(path.size());
        std::memcpy(out, &length, sizeof length);
        path.copy(out + sizeof length, path.size());
        out += sizeof length + path.size();
    }
    if (!message.data.empty()) {
        std::memcpy(out, message.data.data(), message.data.size());
    }
}

MessageView decode_message(std::span<const char> record) {
    RecordHeader header{};
    if (record.size() < sizeof header + kDescriptorSize) {
        damaged("it is too short");
    }
    std::memcpy(&header, record.data(), sizeof header);
    if (header.version != kRecordVersion) {
        damaged("its version is unknown");
    }
    if (header.attachment_count > KVR_ACC_MAX || header.data_bytes > kMaxMessage ||
        record.size() != sizeof header + kDescriptorSize + header.attachment_bytes + header.data_bytes) {
        damaged("its lengths do not fit");
    }
    record = record.subspan(sizeof header);
    const char* descriptor = record.data();
    record = record.subspan(kDescriptorSize);
    const std::string_view attachments(record.data(), header.attachment_bytes);

    std::string_view rest = attachments;
    for (unsigned i = 0; i < header.attachment_count; ++i) {
        std::uint16_t length = 0;
        if (rest.size() < sizeof length) {
            damaged("its list of files ends early");
        }
        std::memcpy(&length, rest.data(), sizeof length);
        if (length == 0 || length > kMaxAttachmentPath || length > rest.size() - sizeof length) {
            damaged("the path of an attached file does not fit");
        }
        if (rest.substr(sizeof length, length).find('\0') != std::string_view::npos) {
            damaged("the path of an attached file holds a NUL");
        }
        rest.remove_prefix(sizeof length + length);
    }
    if (!rest.empty()) {
        damaged("its list of files is too long");
    }
    KVRINT flags = 0;
    std::memcpy(&flags, descriptor + offsetof(T_KAVRO_MD, iMsgFlags), sizeof flags);
    if ((flags & KVR_MSGFLAG_ACCESSORIES) == 0 && header.attachment_count > 0) {
        damaged("it lists files that its flags do not tell of");
    }
    return {descriptor, header.attachment_count, attachments, record.subspan(header.attachment_bytes)};
}

std::string_view next_attachment(std::string_view& list) {
    std::uint16_t length = 0;
    std::memcpy(&length, list.data(), sizeof length);
    const std::string_view path = list.substr(sizeof length, length);
    list.remove_prefix(sizeof length + length);
    return path;
}

std::uint64_t data_bytes(std::string_view record) {
    RecordHeader header{};
    if (record.size() < sizeof header) {
        return 0;
    }
    std::memcpy(&header, record.data(), sizeof header);
    return header.version == kRecordVersion && header.data_bytes <= record.size() ? header.data_bytes : 0;
}

} // namespace kvr
