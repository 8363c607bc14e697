// SPDX-License-Identifier: MIT
#include "message.h"

#include <cstring>
#include <filesystem>

#include <fmt/format.h>
#include <unistd.h>

namespace kvr::bench {

namespace {

void put_number(char* field, std::size_t value) {
    std::memcpy(field, fmt::format("{:08}", value).data(), KVR_CHL_NUM_LEN);
}

T_KAVRO_CHL_HDR blank_header(char type, std::size_t package) {
    T_KAVRO_CHL_HDR header = {};
    put_number(header.sHdrLen, sizeof(header));
    std::memcpy(header.sVer, "01", sizeof(header.sVer));
    put_number(header.sSeqno, 0);
    header.sMsgType[0] = type;
    put_number(header.sIPCMsgType, 0);
    put_number(header.sIPCMsgCode, 0);
    put_number(header.sPkgLen, package);
    return header;
}

std::string base_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

} // namespace

Message::Message(std::size_t body_size, std::vector<std::string> attached)
    : descriptor(), data(sizeof(T_KAVRO_HDR_XMITQ) + body_size), files(std::move(attached)) {
    std::memcpy(descriptor.sStrucId, "MD  ", sizeof(descriptor.sStrucId));
    descriptor.iVersion = 2;
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    descriptor.iMsgFlags = files.empty() ? 0 : KVR_MSGFLAG_ACCESSORIES;

    T_KAVRO_HDR_XMITQ header = {};
    std::memcpy(header.sStrucId, "XTMH", sizeof(header.sStrucId));
    header.iVersion = 1;
    std::memcpy(header.sDestQ, kDestQueue, std::strlen(kDestQueue));
    std::memcpy(data.data(), &header, sizeof(header));
    for (std::size_t i = sizeof(header); i < data.size(); ++i) {
        data[i] = static_cast<char>('A' + i % 26);
    }
}

Frame::Frame(const Message& message) : header(), descriptor() {
    for (const std::string& file : message.files) {
        const std::string name = base_name(file);
        T_KAVRO_CHL_ACC_HDR entry = {};
        put_number(entry.sLen, name.size());
        attachments.append(reinterpret_cast<const char*>(&entry), sizeof(entry)).append(name);
    }
    if (!message.files.empty()) {
        attachments += fmt::format("{:08}{:08}", message.files.size(), attachments.size());
    }
    header = blank_header(KVR_CHL_FRAME_DATA, sizeof(descriptor) + message.body_size() + attachments.size());
    std::memcpy(header.sDestQue, kDestQueue, std::strlen(kDestQueue));
    descriptor.cMsgStoreType = message.descriptor.cMsgStoreType;
    descriptor.iMsgFlags = static_cast<int>(__builtin_bswap32(static_cast<unsigned>(message.descriptor.iMsgFlags)));
}

std::string bind_frame() {
    const std::string name = kChannel;
    const T_KAVRO_CHL_HDR header = blank_header(KVR_CHL_FRAME_BIND, name.size());
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + name;
}

std::uint64_t wire_bytes(const Message& message) {
    const Frame frame(message);
    std::uint64_t bytes =
        sizeof(frame.header) + sizeof(frame.descriptor) + message.body_size() + frame.attachments.size();
    for (const std::string& file : message.files) {
        bytes += KVR_CHL_NUM_LEN + std::filesystem::file_size(file);
    }
    return bytes;
}

bool Feed::next() {
    if (fd_ >= 0) {
        char byte = 0;
        return read(fd_, &byte, 1) == 1;
    }
    if (left_ == 0) {
        pause();
        return false;
    }
    --left_;
    return true;
}

} // namespace kvr::bench
