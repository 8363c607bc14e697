// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include "listen_log.h"
#include "listener_context.h"

namespace kvr {

void Line::log(std::string_view text, std::string_view cause) const {
    listen_log(fmt::format("connection {} from {}: {}", id, peer, text), cause, host());
}

} // namespace kvr
