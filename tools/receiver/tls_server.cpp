// SPDX-License-Identifier: MIT
#include "tls_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include "kavutil/error.h"
#include "wire_fields.h"

namespace kvr {

namespace {

/// Why the last OpenSSL operation failed; empties the error queue. Where the system is the cause, that alone.
std::string openssl_reason() {
    std::string text;
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        if (ERR_SYSTEM_ERROR(code)) {
            ERR_clear_error();
            return std::strerror(ERR_GET_REASON(code));
        }
        const char* const known = ERR_reason_error_string(code);
        const std::string reason = known != nullptr ? std::string(known) : fmt::format("error {:x}", code);
        if (text.find(reason) == std::string::npos) { // each layer reports what the one below it did
            text += (text.empty() ? "" : ", ") + reason;
        }
    }
    return text.empty() ? "no reason given" : text;
}

void require(bool done, const std::string& what, const std::string& remedy = "") {
    if (!done) {
        throw Error(Errc::kInvalid, fmt::format("{}: {}{}", what, openssl_reason(), remedy));
    }
}

struct PassPhrase {
    std::string text;
    bool asked = false; ///< the key is encrypted
};

int version_number(const std::string& text) {
    return text == "1.2" ? TLS1_2_VERSION : TLS1_3_VERSION;
}

std::string first_line(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || (!std::getline(file, line) && !file.eof())) {
        throw Error(Errc::kIo, fmt::format("cannot read the pass phrase file {}: check its path and permissions",
                                           escaped(path.native())));
    }
    return line;
}

/// Never asks on the terminal: without a pass phrase the key does not open.
int give_pass_phrase(char* buffer, int size, int /*writing*/, void* user) {
    auto* const phrase = static_cast<PassPhrase*>(user);
    phrase->asked = true;
    const std::string& text = phrase->text;
    if (text.empty() || text.size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::copy(text.begin(), text.end(), buffer); // no NUL: the length is returned
    return static_cast<int>(text.size());
}

std::string subject_of(const X509* certificate) {
    char* const subject =
        certificate == nullptr ? nullptr : X509_NAME_oneline(X509_get_subject_name(certificate), nullptr, 0);
    std::string text = subject != nullptr ? escaped(subject) : "?";
    OPENSSL_free(subject);
    return text;
}

} // namespace

TlsServer::TlsServer(const TlsOptions& options) : context_(SSL_CTX_new(TLS_server_method())) {
    ERR_clear_error();
    SSL_CTX* const context = context_.get();
    require(context != nullptr, "cannot set TLS up");
    require(SSL_CTX_set_min_proto_version(context, version_number(options.min_version)) == 1 &&
                SSL_CTX_set_max_proto_version(context, version_number(options.max_version)) == 1,
            "the TLS versions do not go together");
    PassPhrase phrase;
    if (!options.key_pass_file.empty()) {
        phrase.text = first_line(options.key_pass_file);
    }
    SSL_CTX_set_default_passwd_cb(context, give_pass_phrase);
    SSL_CTX_set_default_passwd_cb_userdata(context, &phrase);
    require(SSL_CTX_use_certificate_chain_file(context, options.cert.c_str()) == 1,
            fmt::format("cannot use the certificate {}", escaped(options.cert.native())),
            "; give the path of a PEM file with --cert");
    const std::filesystem::path& key = options.key.empty() ? options.cert : options.key;
    const bool key_fits = SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                          SSL_CTX_check_private_key(context) == 1;
    SSL_CTX_set_default_passwd_cb_userdata(context, nullptr);
    OPENSSL_cleanse(phrase.text.data(), phrase.text.size());
    require(key_fits,
            fmt::format("cannot use the key {} with the certificate {}", escaped(key.native()),
                        escaped(options.cert.native())),
            !phrase.asked                   ? "; give the certificate's own key, PEM, with --key"
            : options.key_pass_file.empty() ? "; the key is encrypted: give the file of its pass phrase with "
                                              "--key-pass-file"
                                            : "; the key is encrypted: check the pass phrase in the file of "
                                              "--key-pass-file");
    if (!options.ca.empty()) {
        require(SSL_CTX_load_verify_locations(context, options.ca.c_str(), nullptr) == 1,
                fmt::format("cannot use the CA file {}", escaped(options.ca.native())),
                "; give the path of a PEM file with --ca");
        SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(options.ca.c_str()));
    }
    if (options.client_cert != ClientCert::kNone) {
        SSL_CTX_set_verify(
            context,
            SSL_VERIFY_PEER |
                (options.client_cert == ClientCert::kRequired ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE),
            &Stream::look_at_certificate);
        static constexpr unsigned char kSessionIdContext[] = "kvr";
        require(SSL_CTX_set_session_id_context(context, kSessionIdContext, sizeof kSessionIdContext - 1) == 1,
                "cannot set TLS up");
    }
    require(options.tickets >= 0 && SSL_CTX_set_num_tickets(context, static_cast<std::size_t>(options.tickets)) == 1,
            "the number of session tickets does not go");
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    if (!options.key_log.empty()) {
        key_log_ = std::make_unique<KeyLog>(options.key_log, context);
    }
    // Idle connections hold no record buffers.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE);
}

/// What an alert says that tells that the sender did not believe our certificate; empty: another error.
std::string Stream::refusal_by_peer(unsigned long code) {
    const int alert = ERR_GET_REASON(code) - SSL_AD_REASON_OFFSET;
    const bool refused =
        ERR_GET_LIB(code) == ERR_LIB_SSL &&
        ((alert >= SSL_AD_BAD_CERTIFICATE && alert <= SSL_AD_CERTIFICATE_UNKNOWN) || alert == SSL_AD_UNKNOWN_CA);
    return refused ? fmt::format("the sender refuses the certificate of this listener: {}",
                                 SSL_alert_desc_string_long(alert))
                   : std::string();
}

/// How senders end a line; a handshake has failed by it.
StreamEnd Stream::ended_without_alert() {
    error_ = "end of stream";
    return hands_shaken_ ? StreamEnd::kEof : StreamEnd::kFailed; // OpenSSL's own flag falls with this error
}

StreamEnd Stream::judge(int result) {
    switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return StreamEnd::kWantRead;
    case SSL_ERROR_WANT_WRITE:
        return StreamEnd::kWantWrite;
    case SSL_ERROR_ZERO_RETURN:
        return StreamEnd::kEof;
    case SSL_ERROR_SYSCALL:
        if (errno == 0) {
            return ended_without_alert();
        }
        error_ = fmt::format("[{}:{}]", errno, std::strerror(errno));
        return StreamEnd::kFailed;
    default:
        break;
    }
    if (ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        ERR_clear_error();
        return ended_without_alert();
    }
    const std::string refused = refusal_by_peer(ERR_peek_error());
    error_ = refused.empty() ? openssl_reason() : refused;
    if (!refusal_.empty()) {
        error_ = fmt::format("the certificate of {}", refusal_);
    }
    return StreamEnd::kFailed;
}

int Stream::look_at_certificate(int good, X509_STORE_CTX* chain) {
    const void* const ssl = X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx());
    auto* const stream = static_cast<Stream*>(SSL_get_app_data(static_cast<const SSL*>(ssl)));
    if (good == 0 && stream->refusal_.empty()) {
        stream->refusal_ = fmt::format("{} is refused: {}", subject_of(X509_STORE_CTX_get_current_cert(chain)),
                                       X509_verify_cert_error_string(X509_STORE_CTX_get_error(chain)));
    }
    return good;
}

/// A peer that does not begin with a TLS record speaks plain TCP; OpenSSL would say so in riddles.
bool Stream::peer_speaks_plain() const {
    constexpr char kHandshakeRecord = 0x16;
    char first = kHandshakeRecord;
    return ::recv(fd_.get(), &first, 1, MSG_PEEK) == 1 && first != kHandshakeRecord;
}

StreamEnd Stream::handshake() {
    if (tls_ == nullptr) {
        return StreamEnd::kDone;
    }
    ERR_clear_error();
    if (!ssl_) {
        if (peer_speaks_plain()) {
            error_ = "the sender speaks plain TCP, this listener TLS: set the channel to TLS, or listen without --tls";
            return StreamEnd::kFailed;
        }
        ssl_.reset(SSL_new(tls_));
        if (!ssl_ || SSL_set_fd(ssl_.get(), fd_.get()) != 1) {
            error_ = openssl_reason();
            return StreamEnd::kFailed;
        }
        SSL_set_app_data(ssl_.get(), this);
    }
    errno = 0;
    const int result = SSL_accept(ssl_.get());
    hands_shaken_ = result == 1;
    return hands_shaken_ ? StreamEnd::kDone : judge(result);
}

StreamEnd Stream::read(std::span<char> buffer, std::size_t& count) {
    count = 0;
    if (ssl_) {
        ERR_clear_error();
        errno = 0;
        const int result = SSL_read_ex(ssl_.get(), buffer.data(), buffer.size(), &count);
        return result == 1 ? StreamEnd::kDone : judge(result);
    }
    for (;;) {
        const ssize_t got = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
        if (got > 0) {
            count = static_cast<std::size_t>(got);
            return StreamEnd::kDone;
        }
        if (got == 0) {
            return StreamEnd::kEof;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return StreamEnd::kWantRead;
        }
        if (errno != EINTR) {
            error_ = fmt::format("[{}:{}]", errno, std::strerror(errno));
            return StreamEnd::kFailed;
        }
    }
}

void Stream::send_some(std::span<const char> bytes) {
    if (ssl_) {
        ERR_clear_error();
        std::size_t written = 0;
        (void)SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written);
    } else {
        (void)::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
}

void Stream::send_ticket() {
    if (ssl_ && SSL_new_session_ticket(ssl_.get()) == 1) {
        ERR_clear_error();
        (void)SSL_do_handshake(ssl_.get());
    }
}

void Stream::finish_sending(bool notify) {
    if (ssl_ && notify) {
        ERR_clear_error();
        (void)SSL_shutdown(ssl_.get());
    }
    (void)::shutdown(fd_.get(), SHUT_WR);
}

void Stream::reset_on_close() {
    const linger hard{1, 0};
    (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

std::string Stream::description() const {
    if (!ssl_) {
        return "plain";
    }
    std::string text = fmt::format("{} {}", SSL_get_version(ssl_.get()), SSL_get_cipher_name(ssl_.get()));
    if (X509* const peer = SSL_get0_peer_certificate(ssl_.get()); peer != nullptr) {
        text += fmt::format(" client {}", subject_of(peer));
    }
    return text;
}

} // namespace kvr
