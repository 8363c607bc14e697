// SPDX-License-Identifier: MIT
#include "support/peer.h"

#include <chrono>

#include <openssl/ssl.h>
#include <poll.h>
#include <unistd.h>

#include "support/loopback.h"

namespace kvr::test {
namespace {

std::shared_ptr<SSL_CTX> make_context(const PeerOptions& options) {
    if (options.carrier == Carrier::kPlain) {
        return nullptr;
    }
    std::shared_ptr<SSL_CTX> made(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    SSL_CTX* context = made.get();
    const int version = options.carrier == Carrier::kTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
    SSL_CTX_set_min_proto_version(context, version);
    SSL_CTX_set_max_proto_version(context, version);
    // With TLS 1.2 a digest beside the cipher, for which a client that writes in a handler may need the heap.
    SSL_CTX_set_cipher_list(context, "ECDHE-ECDSA-AES256-SHA384");
    SSL_CTX_use_certificate_file(context, options.identity.cert_file.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(context, options.identity.key_file.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_num_tickets(context, options.tickets);
    if (options.ask_client_cert) {
        SSL_CTX_load_verify_locations(context, tls_material().ca_file.c_str(), nullptr);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return made;
}

} // namespace

bool wait_until(const std::function<bool()>& condition, int seconds) {
    for (int looks = 0; !condition(); looks++) {
        if (looks == seconds * 1000) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

const char* carrier_name(Carrier carrier) {
    constexpr const char* kNames[] = {"Plain", "Tls12", "Tls13"};
    return kNames[static_cast<int>(carrier)];
}

PeerConnection::PeerConnection(int socket, SSL_CTX* context)
    : socket_(socket), ssl_(context != nullptr ? SSL_new(context) : nullptr, SSL_free) {
    const timeval deadline{kDeadlineSeconds, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    if (ssl_) {
        SSL_set_fd(ssl_.get(), socket);
    }
}

bool PeerConnection::handshake() {
    return !ssl_ || (SSL_is_server(ssl_.get()) ? SSL_accept : SSL_connect)(ssl_.get()) == 1;
}

std::string PeerConnection::read(std::size_t size) const {
    std::string all;
    char buffer[16384];
    while (socket_ && all.size() < size) {
        const std::size_t wanted = std::min(size - all.size(), sizeof(buffer));
        const ssize_t got =
            ssl_ ? SSL_read(ssl_.get(), buffer, static_cast<int>(wanted)) : recv(socket_.get(), buffer, wanted, 0);
        if (got <= 0) {
            break;
        }
        all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
}

bool PeerConnection::write(std::string_view data) const {
    const auto size = static_cast<int>(data.size());
    return size == (ssl_ ? SSL_write(ssl_.get(), data.data(), size)
                         : send(socket_.get(), data.data(), data.size(), MSG_NOSIGNAL));
}

int PeerConnection::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getpeername(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void PeerConnection::send_tickets(int count) {
    for (int i = 0; i < count; i++) {
        SSL_new_session_ticket(ssl_.get());
        SSL_do_handshake(ssl_.get());
    }
}

bool PeerConnection::update_keys() {
    SSL_key_update(ssl_.get(), SSL_KEY_UPDATE_REQUESTED);
    SSL_do_handshake(ssl_.get());
    pollfd answer{socket_.get(), POLLIN, 0};
    return poll(&answer, 1, kDeadlineSeconds * 1000) == 1;
}

void PeerConnection::send_close_alert() {
    if (ssl_) {
        SSL_shutdown(ssl_.get());
    }
}

Peer::Peer(const PeerOptions& options, Script script) : script_(std::move(script)), context_(make_context(options)) {
    if (options.receive_buffer > 0) {
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &options.receive_buffer, sizeof(options.receive_buffer));
    }
    port_ = bind_to_loopback(listener_);
    listen(listener_, 8);
    thread_ = std::thread([this] { serve(); });
    serving_.wait(); // a fork from here on copies no lock of a thread that begins
}

Peer::~Peer() {
    eventfd_write(stop_, 1);
    thread_.join();
    ::close(stop_);
    ::close(listener_);
}

void Peer::serve() {
    serving_.count_down();
    for (;;) {
        pollfd waited[] = {{listener_, POLLIN, 0}, {stop_, POLLIN, 0}};
        poll(waited, 2, -1);
        if ((waited[0].revents & POLLIN) == 0) {
            break;
        }
        PeerConnection connection(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), context_.get());
        if (connection.handshake()) {
            script_(connection);
        }
    }
}

} // namespace kvr::test
