// SPDX-License-Identifier: MIT
#include "numbered_put.h"

#include <cstring>
#include <vector>

#include <fmt/format.h>

namespace kvr {

namespace {

constexpr std::size_t kGroupBytes = 4U << 20;

struct Parts {
    T_KAVRO_MD descriptor;
    std::vector<std::string> attachments;
    std::string data;
};

Parts parts_of(const NumberedPut& put, const NumberedMessage& message) {
    Parts parts{descriptor_of(put.tag, message), {}, {}};
    parts.data = message.kind == MessageKind::kHeaderless ? "" : put.header;
    for (const NumberedFile& file : files_of(put.tag, message)) {
        parts.attachments.push_back(write_file(put.files, file).string());
    }
    if (message.kind == MessageKind::kFile) {
        parts.data += parts.attachments.front();
        parts.attachments.clear();
    } else {
        parts.data += body_of(put.tag, message);
    }
    return parts;
}

} // namespace

std::string xmit_header_for(std::string_view destination) {
    const std::size_t at = destination.find('@');
    const std::string_view queue = destination.substr(0, at);
    const std::string_view qmgr = at == std::string_view::npos ? "" : destination.substr(at + 1);
    T_KAVRO_HDR_XMITQ header{};
    std::memcpy(header.sStrucId, "XTMH", sizeof header.sStrucId);
    header.iVersion = 1;
    if (queue.empty() || queue.size() > sizeof header.sDestQ || qmgr.size() > sizeof header.sDestQMgr) {
        throw Error(Errc::kInvalid, fmt::format("'{}' is no destination: write QUEUE@QMGR", destination));
    }
    std::memcpy(header.sDestQ, queue.data(), queue.size());
    std::memcpy(header.sDestQMgr, qmgr.data(), qmgr.size());
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

void put_numbered(const NumberedPut& put, std::span<const NumberedMessage> messages,
                  const std::function<void(std::span<const NumberedMessage>)>& told) {
    while (!messages.empty()) {
        std::vector<Parts> group;
        std::size_t bytes = 0;
        while (group.size() < messages.size() && group.size() < kPutGroup && bytes < kGroupBytes) {
            group.push_back(parts_of(put, messages[group.size()]));
            bytes += group.back().data.size();
        }
        std::vector<OutgoingMessage> outgoing;
        outgoing.reserve(group.size());
        for (const Parts& parts : group) {
            outgoing.push_back({&parts.descriptor, parts.attachments, parts.data});
        }
        put.store.put(put.queue, outgoing);
        told(messages.first(group.size()));
        messages = messages.subspan(group.size());
    }
}

} // namespace kvr
