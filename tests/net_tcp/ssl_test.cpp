// SPDX-License-Identifier: MIT
// The TLS helpers by themselves: results and the line that each failure writes to standard error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp/client.h"
#include "net_tcp_common.h"

namespace kvr::test {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

struct Freer {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using Context = std::unique_ptr<SSL_CTX, Freer>;

Context init(std::string ca, std::string cert, std::string key, std::string pass, int options, bool null_pass = false) {
    return Context(netTcpSSLInitCtx(ca.data(), cert.data(), key.data(), null_pass ? nullptr : pass.data(), options));
}

TEST(SslInitCtx, SaysWhatIsWrongOnOneLine) {
    const TlsMaterial& made = tls_material();
    const TlsIdentity& plain = made.client;
    const TlsIdentity& locked = made.encrypted_client;
    const std::string long_name(2000, 'n');
    const struct {
        const char* name;
        std::string ca, cert, key, pass;
        int options;
        std::string line;
    } cases[] = {
        {"client", made.ca_file, plain.cert_file, plain.key_file, "", NET_TCP_SSL_CLIENT, ""},
        {"no files", "", "", "", "", NET_TCP_SSL_CLIENT | NET_TCP_SSL_NO_FILES, ""},
        {"phrase", made.ca_file, locked.cert_file, locked.key_file, kKeyPass, NET_TCP_SSL_CLIENT, ""},
        {"wrong phrase", made.ca_file, locked.cert_file, locked.key_file, "no", NET_TCP_SSL_CLIENT,
         "SSL_CTX_use_PrivateKey_file[" + locked.key_file + "] error\n"},
        {"null phrase", made.ca_file, locked.cert_file, locked.key_file, "", NET_TCP_SSL_CLIENT,
         "SSL_CTX_use_PrivateKey_file[" + locked.key_file + "] error\n"},
        {"certificate", made.ca_file, "/none", plain.key_file, "", 0, "SSL_CTX_use_certificate_file[/none] error\n"},
        {"CA", "/none", plain.cert_file, plain.key_file, "", 0, "SSL_CTX_load_verify_locations error\n"},
        {"name too long for the line", "", long_name, "", "", 0,
         ("SSL_CTX_use_certificate_file[" + long_name).substr(0, 1022) + "\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        CaptureStderr();
        const Context context =
            init(row.ca, row.cert, row.key, row.pass, row.options, row.name[0] == 'n' && row.pass.empty());
        EXPECT_EQ(GetCapturedStderr(), row.line);
        EXPECT_EQ(context != nullptr, row.line.empty());
    }
}

/// Two ends of a connection inside one thread, after the handshake.
class Pair {
  public:
    explicit Pair(const TlsIdentity& server) {
        const TlsMaterial& made = tls_material();
        const Context ours = init(made.ca_file, made.client.cert_file, made.client.key_file, "", NET_TCP_SSL_CLIENT);
        const Context theirs = init(made.ca_file, server.cert_file, server.key_file, "", 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets_.data()), 0);
        near.reset(SSL_new(ours.get()));
        far.reset(SSL_new(theirs.get()));
        SSL_set_fd(near.get(), sockets_[0]);
        SSL_set_fd(far.get(), sockets_[1]);
        std::thread accepting([&] { EXPECT_EQ(SSL_accept(far.get()), 1); });
        EXPECT_EQ(SSL_connect(near.get()), 1);
        accepting.join();
    }
    ~Pair() {
        ::close(sockets_[0]);
        ::close(sockets_[1]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    void leave() const { shutdown(sockets_[1], SHUT_RDWR); }

    std::unique_ptr<SSL, Freer> near;
    std::unique_ptr<SSL, Freer> far;

  private:
    std::array<int, 2> sockets_{};
};

TEST(SslCheckCert, ComparesTheCommonNameOnlyWhenAsked) {
    const TlsMaterial& made = tls_material();
    const struct {
        const char* name;
        TlsIdentity server;
        const char* expected; ///< null: a null pointer
        int options;
        int result;
    } cases[] = {
        {"same but for case", made.server, "rECEIVER.tEST", NET_TCP_SSL_CHECK_CN, 0},
        {"other", made.server, "Receiver.Tes", NET_TCP_SSL_CHECK_CN, -2},
        {"null", made.server, nullptr, NET_TCP_SSL_CHECK_CN, -2},
        {"none is the empty text", made.nameless_server, "", NET_TCP_SSL_CHECK_CN, 0},
        {"NUL inside", made.nul_name_server, "Receiver.Test", NET_TCP_SSL_CHECK_CN, -2},
        {"untrusted", made.foreign_server, "Receiver.Test", NET_TCP_SSL_CHECK_CN, -1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const Pair pair(row.server);
        std::string expected = row.expected != nullptr ? row.expected : "";
        CaptureStderr();
        EXPECT_EQ(netTcpSSLCheckCert(pair.near.get(), row.expected != nullptr ? expected.data() : nullptr, row.options),
                  row.result);
        const char* line = row.result == -1 ? "SSL_get_verify_result error\n" : "";
        EXPECT_EQ(GetCapturedStderr(),
                  row.result == -2 ? "X509_NAME_get_text_by_NID [" + expected + "] error\n" : line);
    }
}

TEST(SslReadWriteN, ExactLengthsAndEnds) {
    signal(SIGPIPE, SIG_IGN);
    const Pair pair(tls_material().server);
    char buffer[64] = {};
    char data[] = "0123456789";
    int done = -1;
    EXPECT_EQ(netTcpSSLReadN(buffer, 0, &done, pair.near.get()), 0);
    EXPECT_EQ(netTcpSSLWriteN(data, 0, pair.near.get()), 0);
    EXPECT_EQ(done, -1);

    SSL_clear_mode(pair.near.get(), SSL_MODE_AUTO_RETRY); // tickets then end single reads
    EXPECT_EQ(SSL_write(pair.far.get(), data, 4), 4);
    EXPECT_EQ(SSL_write(pair.far.get(), data + 4, 6), 6);
    EXPECT_EQ(netTcpSSLReadN(buffer, 10, &done, pair.near.get()), 10);
    EXPECT_STREQ(buffer, data);

    EXPECT_EQ(SSL_write(pair.far.get(), data, 3), 3);
    SSL_shutdown(pair.far.get());
    pair.leave();
    EXPECT_EQ(netTcpSSLReadN(buffer, 10, &done, pair.near.get()), 0);
    EXPECT_EQ(done, 3);
    CaptureStderr();
    EXPECT_EQ(netTcpSSLWriteN(data, 10, pair.near.get()), 0);
    EXPECT_EQ(GetCapturedStderr(), "write len[10] writelen[0]\n");

    const Pair broken(tls_material().server);
    const std::string noise = std::string("\x17\x03\x03\x00\x20", 5) + " no record of this connection at all";
    EXPECT_EQ(write(SSL_get_fd(broken.far.get()), noise.data(), noise.size()), static_cast<ssize_t>(noise.size()));
    CaptureStderr();
    EXPECT_EQ(netTcpSSLReadN(buffer, 10, &done, broken.near.get()), -1);
    EXPECT_EQ(GetCapturedStderr(), "read len[10] readlen[0]\n");
}

} // namespace
} // namespace kvr::test
