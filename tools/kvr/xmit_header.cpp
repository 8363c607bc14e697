// SPDX-License-Identifier: MIT
#include "xmit_header.h"

#include <cstring>

#include "descriptor.h"
#include "output.h"
#include "session.h"

namespace kvr {

namespace {
constexpr std::string_view kIdentifier = "XTMH";
}

Destination parse_destination(const std::string& text) {
    const std::size_t at = text.find('@');
    Destination destination{checked_remote_name("destination queue", text.substr(0, at)), ""};
    if (at != std::string::npos) {
        destination.qmgr = checked_remote_name("destination queue manager", text.substr(at + 1));
    }
    return destination;
}

std::string xmit_header(const Destination& destination) {
    T_KAVRO_HDR_XMITQ header{};
    std::memcpy(header.sStrucId, kIdentifier.data(), sizeof header.sStrucId);
    header.iVersion = 1;
    fill_text(header.sDestQ, sizeof header.sDestQ, destination.queue);
    fill_text(header.sDestQMgr, sizeof header.sDestQMgr, destination.qmgr);
    std::string bytes(sizeof header, '\0');
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

std::optional<Destination> destination_of(std::string_view data) {
    if (data.size() < kXmitHeaderSize || !data.starts_with(kIdentifier)) {
        return std::nullopt;
    }
    T_KAVRO_HDR_XMITQ header{};
    std::memcpy(&header, data.data(), sizeof header);
    return Destination{field_string(header.sDestQ, sizeof header.sDestQ),
                       field_string(header.sDestQMgr, sizeof header.sDestQMgr)};
}

std::string destination_text(const Destination& destination) {
    return printable(destination.qmgr.empty() ? destination.queue : destination.queue + "@" + destination.qmgr);
}

} // namespace kvr
