// SPDX-License-Identifier: MIT
#include "receiver_line.h"

#include <cerrno>
#include <csignal>
#include <sstream>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace kvr::test {

RunningListener::RunningListener(ListenerOptions options) {
    options.address = "127.0.0.1";
    options.port = 0;
    options.journal = folder_.path() / "journal";
    Event listening;
    options.on_listening = [&](int port) {
        port_ = port;
        listening.set();
    };
    thread_ = std::thread([this, options] {
        try {
            result_ = run_listener(options);
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        ended_.set();
    });
    EXPECT_TRUE(listening.wait());
}

RunningListener::~RunningListener() {
    if (thread_.joinable()) {
        (void)stop();
    }
}

int RunningListener::stop() {
    // The listener's thread has the signal blocked and takes it through its descriptor.
    EXPECT_EQ(::pthread_sigqueue(thread_.native_handle(), SIGTERM, sigval{}), 0);
    return wait();
}

int RunningListener::wait() {
    EXPECT_TRUE(ended_.wait()) << "the listener does not end";
    thread_.join();
    return result_;
}

std::vector<nlohmann::json> RunningListener::journal(std::string_view event) const {
    std::vector<nlohmann::json> lines;
    std::istringstream text(contents(folder_.path() / "journal"));
    for (std::string line; std::getline(text, line);) {
        // The last line may still be on its way.
        const nlohmann::json entry = nlohmann::json::parse(line, nullptr, false);
        if (!entry.is_discarded() && entry["event"] == event) {
            lines.push_back(entry);
        }
    }
    return lines;
}

bool RunningListener::wait_for(std::string_view event, std::size_t count) const {
    return wait_until([&] { return journal(event).size() >= count; });
}

TlsOptions server_tls(Carrier carrier) {
    TlsOptions tls;
    if (carrier != Carrier::kPlain) {
        tls.enabled = true;
        tls.cert = tls_material().server.cert_file;
        tls.key = tls_material().server.key_file;
        tls.ca = tls_material().ca_file;
        tls.min_version = tls.max_version = carrier == Carrier::kTls12 ? "1.2" : "1.3";
    }
    return tls;
}

SendingClient::SendingClient(int port, Carrier carrier, const TlsIdentity* identity)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit{kDeadlineSeconds, 0};
    (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    connected_ = ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (carrier == Carrier::kPlain || !connected_) {
        return;
    }
    context_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
    connected_ = SSL_CTX_load_verify_locations(context_.get(), tls_material().ca_file.c_str(), nullptr) == 1 &&
                 (identity == nullptr ||
                  (SSL_CTX_use_certificate_chain_file(context_.get(), identity->cert_file.c_str()) == 1 &&
                   SSL_CTX_use_PrivateKey_file(context_.get(), identity->key_file.c_str(), SSL_FILETYPE_PEM) == 1));
    ssl_.reset(SSL_new(context_.get()));
    connected_ = connected_ && SSL_set_fd(ssl_.get(), fd_.get()) == 1 && SSL_connect(ssl_.get()) == 1;
}

bool SendingClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ssl_ ? SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()))
                                   : ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

void SendingClient::finish() {
    (void)::shutdown(fd_.get(), SHUT_WR);
}

std::string SendingClient::read_to_end(int& error) {
    std::string all;
    std::array<char, 4096> buffer{};
    for (;;) {
        errno = 0;
        const ssize_t count = ssl_ ? SSL_read(ssl_.get(), buffer.data(), static_cast<int>(buffer.size()))
                                   : ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            error = errno;
            return all;
        }
        all.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

} // namespace kvr::test
