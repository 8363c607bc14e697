// SPDX-License-Identifier: MIT
#include "store/xmit_header.h"

#include <cstring>

#include "store/text_field.h"

namespace kvr {

namespace {
constexpr std::string_view kIdentifier = "XTMH";
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

} // namespace kvr
