// SPDX-License-Identifier: MIT
// A connection to a listener of this machine that carries whatever bytes a test makes up.
#pragma once

#include <cerrno>
#include <csignal>
#include <memory>
#include <string_view>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "kavutil/unique_fd.h"
#include "support/peer.h"

namespace kvr::test {

struct RawLineOptions {
    bool tls = false;
    const TlsIdentity* identity = nullptr;
};

class RawLine {
  public:
    explicit RawLine(int port, const RawLineOptions& options = {})
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in other{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        const timeval limit{kDeadlineSeconds, 0};
        (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&other), sizeof other), 0);
        if (options.tls) {
            begin_tls(options.identity);
        }
    }

    /// False when the listener ended the line.
    [[nodiscard]] bool send(std::string_view bytes) const {
        const auto size = static_cast<int>(bytes.size());
        return ssl_ ? SSL_write(ssl_.get(), bytes.data(), size) == size : send_plain(bytes);
    }
    /// Past the TLS session; false when not all was taken.
    [[nodiscard]] bool send_plain(std::string_view bytes, int flags = 0) const {
        return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | flags) ==
               static_cast<ssize_t>(bytes.size());
    }
    /// As send_plain, without waiting for room.
    [[nodiscard]] bool offer(std::string_view bytes) const { return send_plain(bytes, MSG_DONTWAIT); }
    void finish() const { (void)::shutdown(fd_.get(), SHUT_WR); }
    /// Waits for the listener's end of the line; false when that was no orderly one.
    bool await_end() const {
        char byte = 0;
        errno = 0;
        return (ssl_ ? SSL_read(ssl_.get(), &byte, 1) : ::recv(fd_.get(), &byte, 1, 0)) <= 0 && errno == 0;
    }

  private:
    /// Where the handshake fails, so does what follows.
    void begin_tls(const TlsIdentity* identity) {
        (void)::signal(SIGPIPE, SIG_IGN); // OpenSSL writes without MSG_NOSIGNAL
        const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
        if (identity != nullptr) {
            SSL_CTX_use_certificate_chain_file(context.get(), identity->cert_file.c_str());
            SSL_CTX_use_PrivateKey_file(context.get(), identity->key_file.c_str(), SSL_FILETYPE_PEM);
        }
        ssl_.reset(SSL_new(context.get()));
        SSL_set_fd(ssl_.get(), fd_.get());
        SSL_connect(ssl_.get());
    }

    UniqueFd fd_;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
};

} // namespace kvr::test
