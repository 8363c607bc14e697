// SPDX-License-Identifier: MIT
#include "destination.h"

#include "output.h"
#include "session.h"

namespace kvr {

Destination parse_destination(const std::string& text) {
    const std::size_t at = text.find('@');
    Destination destination{checked_remote_name("destination queue", text.substr(0, at)), ""};
    if (at != std::string::npos) {
        destination.qmgr = checked_remote_name("destination queue manager", text.substr(at + 1));
    }
    return destination;
}

std::string destination_text(const Destination& destination) {
    return printable(destination.qmgr.empty() ? destination.queue : destination.queue + "@" + destination.qmgr);
}

} // namespace kvr
