// SPDX-License-Identifier: MIT
// The two ends of a line for tests: a listener that runs in a thread of its own, and a sender that writes prepared
// bytes, plain or in TLS.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <openssl/ssl.h>

#include "listener_options.h"
#include "support/folder.h"
#include "support/peer.h"
#include "unique_fd.h"

namespace kvr::test {

class RunningListener {
  public:
    /// Fills in a loopback address, any port and a journal; starts.
    explicit RunningListener(ListenerOptions options);
    /// Stops when that has not been done.
    ~RunningListener();
    RunningListener(const RunningListener&) = delete;
    RunningListener& operator=(const RunningListener&) = delete;

    [[nodiscard]] int port() const { return port_; }
    /// Asks for a stop and waits for its end; returns the result of run_listener.
    int stop();
    /// Waits for an end without asking; for listeners with `once`.
    int wait();
    /// Lines of the journal so far, of one kind of event.
    [[nodiscard]] std::vector<nlohmann::json> journal(std::string_view event) const;
    /// False when there are not so many before the deadline.
    [[nodiscard]] bool wait_for(std::string_view event, std::size_t count) const;

  private:
    TemporaryFolder folder_;
    int port_ = 0;
    int result_ = -1;
    Event ended_;
    std::thread thread_;
};

/// TLS of a listener that the client below trusts.
TlsOptions server_tls(Carrier carrier);

class SendingClient {
  public:
    /// @param identity  client certificate; null: none
    SendingClient(int port, Carrier carrier, const TlsIdentity* identity = nullptr);

    /// False when the handshake failed.
    [[nodiscard]] bool connected() const { return connected_; }
    /// False when the listener ended the line.
    bool send(std::string_view bytes);
    /// Ends our half.
    void finish();
    /// Waits until the listener ends the line; returns what it sent. `error` tells an orderly end (0) from a reset.
    std::string read_to_end(int& error);

  private:
    UniqueFd fd_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{nullptr, SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
    bool connected_ = false;
};

} // namespace kvr::test
