// SPDX-License-Identifier: MIT
// What a listener is told at its start.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "store/store.h"

namespace kvr {

enum class ClientCert { kNone, kOptional, kRequired };

/// Without contradictions: the command line is checked before.
struct TlsOptions {
    bool enabled = false;
    std::filesystem::path cert;          ///< PEM, with the chain after it
    std::filesystem::path key;           ///< PEM; empty: in the file of the certificate
    std::filesystem::path key_pass_file; ///< first line is the key's pass phrase
    std::filesystem::path ca;      ///< PEM, whom to believe about client certificates; needed where they are asked for
    std::filesystem::path key_log; ///< gets the keys of all sessions; empty: none
    ClientCert client_cert = ClientCert::kNone;
    std::string min_version = "1.2"; ///< 1.2 or 1.3
    std::string max_version = "1.3";
    int tickets = 0;         ///< TLS 1.3 session tickets after the handshake; a channel never resumes a session
    int late_ticket_ms = -1; ///< one more ticket this long after the handshake; below 0: none
};

/// A peer that misbehaves on purpose, for tests and demonstrations. Bytes count from the start of each connection,
/// inside TLS the plain ones.
struct AwkwardOptions {
    std::optional<std::uint64_t> close_after; ///< FIN after exactly so many bytes; later ones are read and dropped
    std::optional<std::uint64_t> reset_after; ///< RST after exactly so many bytes
    std::optional<std::uint64_t> stall_after; ///< reads no further, the connection stays
    std::uint64_t read_rate = 0;              ///< bytes per second, 0: as fast as they come
    std::size_t send = 0;                     ///< bytes that are sent to the peer after its bind frame
    bool refuse = false;                      ///< accepts and closes at once
    bool no_handshake = false;                ///< accepts and neither reads nor answers
    bool close_notify = false;                ///< with TLS, a closing alert goes before each FIN of ours
    int receive_buffer = 0;                   ///< SO_RCVBUF, 0: the system's
    std::uint64_t first = 0;                  ///< only the first so many connections; 0: all
    /// Only every second connection, the first one included, each of them so many bytes later; 0: all.
    std::uint64_t step = 0;
};

struct ListenerOptions {
    std::string address = "0.0.0.0";    ///< numeric, IPv4 or IPv6
    int port = 5151;                    ///< 0: any
    std::filesystem::path port_file;    ///< gets the port in decimal once connections are accepted
    std::shared_ptr<Store> store;       ///< null: messages are split, checked, counted and dropped
    std::filesystem::path spool;        ///< with a store; its parent must exist
    std::filesystem::path journal;      ///< empty: none
    std::uint64_t take_once = 0;        ///< leave out repeats of the last so many messages; 0: of none; with a store
    std::size_t max_connections = 1024; ///< fewer when the limit of open files is not enough for them
    std::size_t max_per_address = 256;  ///< beyond it an idle one of the address makes room
    int idle_seconds = 10;              ///< without progress, before a connection can be asked to make room
    int handshake_seconds = 30;         ///< from accept to the end of the bind frame
    std::uint64_t once = 0;             ///< ends after so many connections have ended; 0: runs until it is stopped
    TlsOptions tls;
    AwkwardOptions awkward;
    std::function<void(int port)> on_listening; ///< may be empty
};

/// Listens until SIGTERM or SIGINT, or until `once` is reached; on SIGHUP it opens its journal anew. All three are
/// blocked in the calling thread for the time of the call. At a stop it takes in what has been sent so far, delivers
/// what is complete and returns, within seconds whatever happens.
/// @return 0; 1 when something was lost that had come, or lines of the journal: the log tells what
/// Throws kvr::Error when it cannot start.
int run_listener(const ListenerOptions& options);

} // namespace kvr
