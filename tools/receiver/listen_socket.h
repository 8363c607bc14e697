// SPDX-License-Identifier: MIT
// The listening socket, and what is set on each connection that comes through it.
#pragma once

#include <filesystem>
#include <string>

#include "kavutil/unique_fd.h"

namespace kvr {

/// Listens without blocking on a numeric address. Throws kvr::Error with what to do.
/// @param port   0: any
/// @param bound  (out) the port in use
UniqueFd open_listen_socket(const std::string& address, int port, int receive_buffer, int& bound);

enum class Accepted {
    kConnection,
    kNone,      ///< nobody waits
    kExhausted, ///< descriptors or memory: try again later
};
/// @param peer (out) "address:port"
Accepted accept_connection(int listener, UniqueFd& connection, std::string& peer);

/// Writes the port where a starter can wait for it: the file appears whole, in the place of whatever has its
/// name. Throws kvr::Error(kIo).
void write_port_file(const std::filesystem::path& path, int port);

} // namespace kvr
