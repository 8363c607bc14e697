// SPDX-License-Identifier: MIT
// What the connections of a listener share, and what names one of them in log and journal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/types.h>

#include "delivery.h"
#include "journal.h"
#include "listener_options.h"
#include "spool.h"

namespace kvr {

/// What all connections of a listener share.
struct ListenerContext {
    static constexpr std::size_t kChunk = 256U << 10U; ///< greatest read

    const ListenerOptions& options;
    SSL_CTX* tls; ///< null: plain
    Spool* spool; ///< null: without a store
    Delivery& delivery;
    Journal& journal;
    std::vector<char> chunk = std::vector<char>(kChunk);
    std::uint64_t bytes = 0;
    std::uint64_t binds = 0;
    std::uint64_t lost_bytes = 0; ///< that had come to connections which ended before they were taken in
    bool files_given_up = false;  ///< messages with files are lost from now on
};

/// One connection, for people.
struct Line {
    std::uint64_t id;    ///< counts the accepted ones from 1
    std::string peer;    ///< address and port
    std::string channel; ///< empty before the bind frame

    /// Address of the peer without the port.
    [[nodiscard]] std::string_view host() const { return std::string_view(peer).substr(0, peer.rfind(':')); }
    /// @param cause  the kind of text, for the count of repeated ones; empty: every one is told
    void log(std::string_view text, std::string_view cause) const;
};

} // namespace kvr
