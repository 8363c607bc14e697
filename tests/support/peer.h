// SPDX-License-Identifier: MIT
// A scripted receiver for tests: listens on a loopback port and runs a function over each connection, in a thread of
// its own that takes no signals. Connections come one after the other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include <openssl/types.h>

#include "support/tls_material.h"

namespace kvr::test {

/// No wait of a test lasts longer; reaching it is a failure.
inline constexpr int kDeadlineSeconds = 20;

/// Something that one thread waits for and another tells.
class Event {
  public:
    void set();
    /// False when the deadline passed first.
    [[nodiscard]] bool wait();

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;
};

/// Asks again and again until the condition holds; false when the deadline passed first.
[[nodiscard]] bool wait_until(const std::function<bool()>& condition);

enum class Carrier { kPlain, kTls12, kTls13 };
const char* carrier_name(Carrier carrier);

struct PeerOptions {
    Carrier carrier = Carrier::kPlain;
    TlsIdentity identity = tls_material().server;
    int tickets = -1;             ///< TLS 1.3 session tickets after the handshake; negative: OpenSSL's default
    bool ask_client_cert = false; ///< the handshake fails without a trusted one
    bool anonymous = false;       ///< TLS 1.2 without any certificate
    bool handshake = true;        ///< false: a TLS peer whose script begins before the handshake
    int receive_buffer = 0;       ///< bytes; 0: the system's default
};

class PeerConnection {
  public:
    PeerConnection(int socket, SSL_CTX* context);
    ~PeerConnection();
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;

    bool handshake();
    /// Reads so many bytes; fewer when the connection ended first.
    std::string read(std::size_t size);
    std::string read_all();
    bool write(std::string_view data);
    /// Bytes that lie in the receive buffer.
    int pending() const;
    /// The other end's port.
    int port() const;
    /// How the last read ended before its size: true at an orderly end, false at an error.
    bool ended_well() const { return ended_well_; }

    void send_tickets(int count); ///< TLS 1.3
    void update_keys();           ///< TLS 1.3: changes keys and asks the other end to do so too
    void send_close_alert();
    void close();
    void reset(); ///< closes with a reset

  private:
    std::string read_up_to(std::size_t size);

    int socket_;
    SSL* ssl_;
    bool ended_well_ = true;
};

class Peer {
  public:
    using Script = std::function<void(PeerConnection&)>;

    Peer(const PeerOptions& options, Script script);
    /// Waits for the running script and ends the thread.
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int port() const { return port_; }
    /// Connections taken so far.
    int accepted() const { return accepted_; }

  private:
    void serve();

    PeerOptions options_;
    Script script_;
    SSL_CTX* context_ = nullptr;
    int listener_ = -1;
    int stop_pipe_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> accepted_ = 0;
    Event serving_;
    std::thread thread_;
};

} // namespace kvr::test
