// SPDX-License-Identifier: MIT
// The receiver's side of TLS, and the byte stream of one connection, plain or TLS. Nothing here blocks.
#pragma once

#include <memory>
#include <span>
#include <string>

#include <openssl/ssl.h>

#include "kavutil/unique_fd.h"
#include "key_log.h"
#include "listener_options.h"

namespace kvr {

class TlsServer {
  public:
    /// Throws kvr::Error when a file is missing or does not fit.
    explicit TlsServer(const TlsOptions& options);
    [[nodiscard]] SSL_CTX* context() const { return context_.get(); }

  private:
    struct Free {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    std::unique_ptr<SSL_CTX, Free> context_;
    std::unique_ptr<KeyLog> key_log_; ///< null: none
};

enum class StreamEnd {
    kDone,
    kWantRead,
    kWantWrite,
    kEof,    ///< the peer's end of stream
    kFailed, ///< error() tells
};

class Stream {
  public:
    /// @param tls  null for a plain connection
    Stream(UniqueFd fd, SSL_CTX* tls) : fd_(std::move(fd)), tls_(tls) {}
    Stream(const Stream&) = delete; // the TLS session points here
    Stream& operator=(const Stream&) = delete;

    [[nodiscard]] int fd() const { return fd_.get(); }
    /// One step of the TLS handshake, kDone at once for a plain connection. The TLS session is made when the first
    /// bytes are there, so that a silent peer costs nothing.
    StreamEnd handshake();
    /// @param count (out) bytes read when the result is kDone
    StreamEnd read(std::span<char> buffer, std::size_t& count);
    /// Bytes that wait inside the TLS session, where poll does not see them. A record that has come in part is none.
    [[nodiscard]] std::size_t buffered() const { return ssl_ ? static_cast<std::size_t>(SSL_pending(ssl_.get())) : 0; }
    /// The TLS handshake has begun: the peer may take it for done before we do.
    [[nodiscard]] bool answered() const { return ssl_ != nullptr; }
    /// Sends as much as goes at once; for small texts to an idle peer.
    void send_some(std::span<const char> bytes);
    /// One more session ticket.
    void send_ticket();
    /// Our end of stream; reading goes on. With `notify` a TLS peer gets the closing alert before it.
    void finish_sending(bool notify);
    /// Makes the close a reset.
    void reset_on_close();
    /// Protocol, cipher and the peer's certificate, for the log.
    [[nodiscard]] std::string description() const;
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    struct Free {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };
    StreamEnd judge(int result);
    static std::string refusal_by_peer(unsigned long code);
    [[nodiscard]] bool peer_speaks_plain() const;
    /// Notes why the peer's certificate is refused; always gives `good` back.
    static int look_at_certificate(int good, X509_STORE_CTX* chain);
    friend class TlsServer;
    StreamEnd ended_without_alert();

    UniqueFd fd_;
    SSL_CTX* tls_;
    std::unique_ptr<SSL, Free> ssl_; ///< declared after fd_: goes first
    bool hands_shaken_ = false;
    std::string error_;
    std::string refusal_; ///< of the peer's certificate: its subject and the reason
};

} // namespace kvr
