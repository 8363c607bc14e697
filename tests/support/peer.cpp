// SPDX-License-Identifier: MIT
#include "support/peer.h"

#include <array>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvr::test {
namespace {

void require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

SSL_CTX* make_context(const PeerOptions& options) {
    if (options.carrier == Carrier::kPlain) {
        return nullptr;
    }
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    const int version = options.carrier == Carrier::kTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
    SSL_CTX_set_min_proto_version(context, version);
    SSL_CTX_set_max_proto_version(context, version);
    if (options.anonymous) {
        require(SSL_CTX_set_cipher_list(context, "aNULL:@SECLEVEL=0") == 1, "no anonymous ciphers");
    } else {
        require(SSL_CTX_use_certificate_file(context, options.identity.cert_file.c_str(), SSL_FILETYPE_PEM) == 1 &&
                    SSL_CTX_use_PrivateKey_file(context, options.identity.key_file.c_str(), SSL_FILETYPE_PEM) == 1,
                "no certificate for the peer");
    }
    if (options.tickets >= 0) {
        SSL_CTX_set_num_tickets(context, static_cast<std::size_t>(options.tickets));
    }
    if (options.ask_client_cert) {
        SSL_CTX_load_verify_locations(context, tls_material().ca_file.c_str(), nullptr);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return context;
}

} // namespace

void Event::set() {
    const std::lock_guard lock(mutex_);
    set_ = true;
    changed_.notify_all();
}

bool Event::wait() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(kDeadlineSeconds), [this] { return set_; });
}

bool wait_until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kDeadlineSeconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

const char* carrier_name(Carrier carrier) {
    switch (carrier) {
    case Carrier::kPlain:
        return "Plain";
    case Carrier::kTls12:
        return "Tls12";
    default:
        return "Tls13";
    }
}

PeerConnection::PeerConnection(int socket, SSL_CTX* context)
    : socket_(socket), ssl_(context != nullptr ? SSL_new(context) : nullptr) {
    const timeval deadline{kDeadlineSeconds, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof(deadline));
    if (ssl_ != nullptr) {
        SSL_set_fd(ssl_, socket_);
    }
}

PeerConnection::~PeerConnection() {
    SSL_free(ssl_);
    close();
}

bool PeerConnection::handshake() {
    ERR_clear_error();
    return ssl_ == nullptr || SSL_accept(ssl_) == 1;
}

std::string PeerConnection::read_up_to(std::size_t size) {
    if (socket_ < 0) {
        return {};
    }
    std::array<char, 16384> buffer{};
    const std::size_t wanted = std::min(size, buffer.size());
    ERR_clear_error();
    const ssize_t got = ssl_ != nullptr ? SSL_read(ssl_, buffer.data(), static_cast<int>(wanted))
                                        : recv(socket_, buffer.data(), wanted, 0);
    if (got <= 0) {
        ended_well_ = ssl_ == nullptr ? got == 0
                                      : SSL_get_error(ssl_, static_cast<int>(got)) == SSL_ERROR_ZERO_RETURN ||
                                            ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
        return {};
    }
    return {buffer.data(), static_cast<std::size_t>(got)};
}

std::string PeerConnection::read(std::size_t size) {
    std::string all;
    while (all.size() < size) {
        const std::string part = read_up_to(size - all.size());
        if (part.empty()) {
            break;
        }
        all += part;
    }
    return all;
}

std::string PeerConnection::read_all() {
    return read(std::string::npos);
}

bool PeerConnection::write(std::string_view data) {
    while (!data.empty()) {
        const ssize_t done = ssl_ != nullptr ? SSL_write(ssl_, data.data(), static_cast<int>(data.size()))
                                             : send(socket_, data.data(), data.size(), MSG_NOSIGNAL);
        if (done <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(done));
    }
    return true;
}

int PeerConnection::pending() const {
    int bytes = 0;
    ioctl(socket_, FIONREAD, &bytes);
    return bytes;
}

int PeerConnection::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getpeername(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void PeerConnection::send_tickets(int count) {
    for (int i = 0; i < count; i++) {
        require(SSL_new_session_ticket(ssl_) == 1 && SSL_do_handshake(ssl_) == 1, "no ticket sent");
    }
}

void PeerConnection::update_keys() {
    require(SSL_key_update(ssl_, SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(ssl_) == 1, "no key update sent");
}

void PeerConnection::send_close_alert() {
    if (ssl_ != nullptr) {
        SSL_shutdown(ssl_);
    }
}

void PeerConnection::close() {
    if (socket_ >= 0) {
        ::close(std::exchange(socket_, -1));
    }
}

void PeerConnection::reset() {
    const linger at_once{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close();
}

Peer::Peer(const PeerOptions& options, Script script)
    : options_(options), script_(std::move(script)), context_(make_context(options)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (options.receive_buffer > 0) {
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &options.receive_buffer, sizeof(options.receive_buffer));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    require(bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(listener_, 8) == 0 &&
                getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
                pipe2(stop_pipe_, O_CLOEXEC) == 0,
            "no listener");
    port_ = ntohs(address.sin_port);

    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    thread_ = std::thread([this] { serve(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    require(serving_.wait(), "no thread"); // a fork from here on copies no lock of a thread that begins
}

Peer::~Peer() {
    ::close(stop_pipe_[1]);
    thread_.join();
    ::close(stop_pipe_[0]);
    ::close(listener_);
    SSL_CTX_free(context_);
}

void Peer::serve() {
    serving_.set();
    for (;;) {
        std::array<pollfd, 2> waited{{{listener_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}}};
        poll(waited.data(), waited.size(), -1);
        if ((waited[0].revents & POLLIN) == 0) {
            break;
        }
        const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            continue;
        }
        accepted_++;
        PeerConnection connection(socket, context_);
        if (!options_.handshake || connection.handshake()) {
            script_(connection);
        }
    }
}

} // namespace kvr::test
