// SPDX-License-Identifier: MIT
// A connection to a listener of this machine that carries whatever bytes a test makes up.
#pragma once

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "support/loopback.h"
#include "support/peer.h"

namespace kvr::test {

struct RawLineOptions {
    bool tls = false;
    const TlsIdentity* identity = nullptr;
};

class RawLine : public PeerConnection {
  public:
    /// Where the handshake fails, so does what follows.
    explicit RawLine(int port, const RawLineOptions& options = {})
        : PeerConnection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), make_context(options).get()) {
        EXPECT_TRUE(connect_to_loopback(socket_.get(), port));
        (void)::signal(SIGPIPE, SIG_IGN); // OpenSSL writes without MSG_NOSIGNAL
        handshake();
    }

    /// False when the listener ended the line.
    [[nodiscard]] bool send(std::string_view bytes) const { return write(bytes); }
    /// Past the TLS session and without waiting for room; false when not all was taken.
    [[nodiscard]] bool offer(std::string_view bytes) const {
        return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(bytes.size());
    }
    void finish() const { (void)::shutdown(socket_.get(), SHUT_WR); }
    /// Waits for the listener's end of the line; false when that was no orderly one.
    bool await_end() const {
        errno = 0;
        return read(1).empty() && errno == 0;
    }

  private:
    static std::shared_ptr<SSL_CTX> make_context(const RawLineOptions& options) {
        const std::shared_ptr<SSL_CTX> context(options.tls ? SSL_CTX_new(TLS_client_method()) : nullptr, SSL_CTX_free);
        if (options.identity != nullptr) {
            SSL_CTX_use_certificate_chain_file(context.get(), options.identity->cert_file.c_str());
            SSL_CTX_use_PrivateKey_file(context.get(), options.identity->key_file.c_str(), SSL_FILETYPE_PEM);
        }
        return context;
    }
};

} // namespace kvr::test
