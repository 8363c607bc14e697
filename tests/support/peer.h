// SPDX-License-Identifier: MIT
// A scripted receiver for tests: listens on a loopback port and runs a function over each connection, in a thread of
// its own. Connections come one after the other.
#pragma once

#include <functional>
#include <latch>
#include <memory>
#include <string_view>
#include <thread>

#include <openssl/types.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "kavutil/unique_fd.h"
#include "support/tls_material.h"

namespace kvr::test {

/// Reaching it is a failure.
inline constexpr int kDeadlineSeconds = 20;

/// Asks again and again until the condition holds; false when the deadline passed first.
[[nodiscard]] bool wait_until(const std::function<bool()>& condition, int seconds = kDeadlineSeconds);

enum class Carrier { kPlain, kTls12, kTls13 };
const char* carrier_name(Carrier carrier); ///< in the names of tests

struct PeerOptions {
    Carrier carrier = Carrier::kPlain;
    TlsIdentity identity = tls_material().server;
    std::size_t tickets = 2;      ///< TLS 1.3 session tickets after the handshake
    bool ask_client_cert = false; ///< the handshake fails without a trusted one
    int receive_buffer = 0;       ///< bytes; 0: the system's default
};

class PeerConnection {
  public:
    /// `context` null: plain TCP; it says which end of the handshake this is.
    PeerConnection(int socket, SSL_CTX* context);

    bool handshake();
    /// Reads so many bytes; fewer when the connection ended first.
    std::string read(std::size_t size) const;
    std::string read_all() const { return read(std::string::npos); }
    /// False when the other end did not take all.
    bool write(std::string_view data) const;
    /// The other end's port.
    int port() const;

    void send_tickets(int count); ///< TLS 1.3
    /// TLS 1.3: changes keys and asks the other end to do so too. True when something comes back.
    bool update_keys();
    void send_close_alert();
    void close() { socket_.reset(); }
    /// For what goes past the session.
    [[nodiscard]] int socket() const { return socket_.get(); }

  protected:
    UniqueFd socket_;
    std::unique_ptr<SSL, void (*)(SSL*)> ssl_; ///< null: plain TCP
};

class Peer {
  public:
    using Script = std::function<void(PeerConnection&)>;

    Peer(const PeerOptions& options, Script script);
    /// Waits for the scripts of all connections made so far and ends the thread.
    ~Peer();

    int port() const { return port_; }

  private:
    void serve();

    Script script_;
    std::shared_ptr<SSL_CTX> context_;
    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int stop_ = eventfd(0, EFD_CLOEXEC);
    int port_ = 0;
    std::latch serving_{1};
    std::thread thread_;
};

} // namespace kvr::test
