// SPDX-License-Identifier: MIT
// The transmission header in front of the data of every message on a transmission queue.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kavro_api.h"
#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

constexpr std::size_t kXmitHeaderSize = sizeof(T_KAVRO_HDR_XMITQ);
/// Greatest data that a channel can move: what is left of a message after the header.
constexpr std::size_t kMaxTransmitted = kMaxMessage - kXmitHeaderSize;
static_assert(kMaxTransmitted == 2098304);

struct Destination {
    std::string queue;
    std::string qmgr; ///< may be empty
};

/// The 72 bytes; of a name that is too long its beginning.
KVR_EXPORT std::string xmit_header(const Destination& destination);
/// Where the data is bound for; nothing when it does not begin with a header.
KVR_EXPORT std::optional<Destination> destination_of(std::string_view data);

} // namespace kvr
