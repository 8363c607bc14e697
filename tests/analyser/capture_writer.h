// SPDX-License-Identifier: MIT
// Captures as a test makes them up, byte by byte: connections to port 5151, plain or TLS, in whatever segments.
#pragma once

#include <filesystem>
#include <fstream>

#include <openssl/ssl.h>

#include "support/peer.h"
#include "support/receiver_stream.h"

namespace kvr::test {

enum Link { kEthernet = 1, kRaw = 101, kSll = 113, kSll2 = 276 };
enum Flags { kFin = 1, kSyn = 2, kReset = 4, kPush = 8, kAck = 16 };

struct MadeSegment {
    std::uint32_t sequence;
    int flags;
    std::string payload = "";
    bool answer = false;                  ///< from the receiver
    std::size_t kept = std::string::npos; ///< bytes of the packet that the capture keeps
};

inline std::string big16(std::size_t value) {
    return big_endian(static_cast<std::int32_t>(value)).substr(2);
}
inline std::string little_endian(std::size_t value) {
    const std::string bytes = big_endian(static_cast<std::int32_t>(value));
    return {bytes.rbegin(), bytes.rend()};
}

class CaptureWriter {
  public:
    explicit CaptureWriter(const std::filesystem::path& path, int link = kEthernet)
        : out_(path, std::ios::binary), link_(link) {
        out_ << little_endian(0xa1b2c3d4) << little_endian(0x00040002) << nuls(8) << little_endian(1U << 18U)
             << little_endian(static_cast<std::size_t>(link));
    }
    /// @param sender  its port; an odd one speaks IPv6
    void add(std::size_t sender, const MadeSegment& made) {
        const bool v6 = sender % 2 == 1;
        const std::string tcp = big16(made.answer ? 5151 : sender) + big16(made.answer ? sender : 5151) +
                                big_endian(static_cast<std::int32_t>(made.sequence)) + big_endian(1) + "\x50" +
                                static_cast<char>(made.flags) + big16(65535) + nuls(4) + made.payload;
        const std::string v4 = "\x45" + nuls(1) + big16(20 + tcp.size()) + nuls(4) + "\x40\x06" + nuls(2);
        const std::string ends =
            v6 ? nuls(15) + "\x01" + nuls(15) + "\x01" : "\x7f" + nuls(2) + "\x01\x7f" + nuls(2) + "\x01";
        const std::string packet = link_header(big16(v6 ? 0x86dd : 0x0800)) +
                                   (v6 ? "\x60" + nuls(3) + big16(tcp.size()) + "\x06\x40" : v4) + ends + tcp;
        const std::string there = packet.substr(0, made.kept);
        out_ << nuls(8) << little_endian(there.size()) << little_endian(packet.size()) << there << std::flush;
    }
    /// A connection from beginning to end; each piece is a segment.
    /// @param pieces  whether it is an answer, and its bytes
    void connection(std::size_t sender, const std::vector<std::pair<bool, std::string>>& pieces) {
        std::uint32_t next[] = {1000, 5000};
        add(sender, {999, kSyn});
        add(sender, {4999, kSyn | kAck, "", true});
        for (const auto& [answer, bytes] : pieces) {
            add(sender, {next[answer ? 1 : 0], kAck | kPush, bytes, answer});
            next[answer ? 1 : 0] += static_cast<std::uint32_t>(bytes.size());
        }
        add(sender, {next[0], kFin | kAck});
    }

  private:
    [[nodiscard]] std::string link_header(const std::string& type) const {
        return link_ == kRaw    ? ""
               : link_ == kSll  ? nuls(14) + type
               : link_ == kSll2 ? type + nuls(18)
                                : nuls(12) + "\x81" + nuls(3) + type; // Ethernet, behind a VLAN tag
    }

    std::ofstream out_;
    int link_;
};

inline std::vector<std::pair<bool, std::string>> plain_pieces(std::string_view stream, std::size_t size) {
    std::vector<std::pair<bool, std::string>> pieces;
    for (; !stream.empty(); stream.remove_prefix(std::min(size, stream.size()))) {
        pieces.emplace_back(false, stream.substr(0, size));
    }
    return pieces;
}

/// What both ends of a TLS session put on the wire when the sender writes these pieces, one record each.
/// @param keys  (in/out) the session's keys are appended, in the form of a key log
inline std::vector<std::pair<bool, std::string>> tls_pieces(const std::vector<std::pair<bool, std::string>>& plain,
                                                            int version, std::string& keys) {
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(SSL_CTX_new(TLS_method()), SSL_CTX_free);
    SSL_CTX_set_min_proto_version(context.get(), version);
    SSL_CTX_set_max_proto_version(context.get(), version);
    SSL_CTX_use_certificate_chain_file(context.get(), tls_material().server.cert_file.c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), tls_material().server.key_file.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_app_data(context.get(), &keys);
    SSL_CTX_set_keylog_callback(context.get(), [](const SSL* ssl, const char* line) {
        *static_cast<std::string*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl))) += std::string(line) + "\n";
    });
    std::vector<std::pair<bool, std::string>> wire;
    std::unique_ptr<SSL, void (*)(SSL*)> ends[] = {{SSL_new(context.get()), SSL_free},
                                                   {SSL_new(context.get()), SSL_free}};
    for (auto& end : ends) {
        SSL_set_bio(end.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    }
    const auto carry = [&](bool answer) {
        char bytes[32768];
        for (int count = 0; (count = BIO_read(SSL_get_wbio(ends[answer].get()), bytes, sizeof bytes)) > 0;) {
            wire.emplace_back(answer, std::string(bytes, static_cast<std::size_t>(count)));
            BIO_write(SSL_get_rbio(ends[!answer].get()), bytes, count);
        }
    };
    SSL_set_connect_state(ends[0].get());
    SSL_set_accept_state(ends[1].get());
    for (int turn = 0; turn < 8; ++turn) {
        SSL_do_handshake(ends[turn % 2].get());
        carry(turn % 2 == 1);
    }
    for (const auto& piece : plain) {
        SSL_write(ends[0].get(), piece.second.data(), static_cast<int>(piece.second.size()));
        carry(false);
    }
    return wire;
}

} // namespace kvr::test
