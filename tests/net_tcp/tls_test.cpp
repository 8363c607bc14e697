// SPDX-License-Identifier: MIT
// TLS on a line that only writes: the check of the peer, tickets, what a receiver may say, time limits and signals.
#include <cerrno>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <unistd.h>

#include "kavutil.h"
#include "net_tcp/client.h"
#include "net_tcp_common.h"

namespace kvr::test {
namespace {

using testing::EndsWith;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

using TlsTest = CarrierTest;
INSTANTIATE_TEST_SUITE_P(Carriers, TlsTest, testing::Values(Carrier::kTls12, Carrier::kTls13), carrier_of);

enum class Fails { kNever, kInit, kCheck, kRefused };

struct Show {
    const char* name;
    Fails fails;
    std::string reason; ///< its beginning
    TlsIdentity server = tls_material().server;
    TlsIdentity client = tls_material().client;
    std::string phrase = "";
    std::string on_stderr = "SSL_get_verify_result error";
    std::string ca = tls_material().ca_file;
    bool asked = false; ///< the server asks for the client's certificate
    int options = 0;
};

std::vector<Show> shows() {
    using enum Fails;
    const TlsMaterial& made = tls_material();
    const TlsIdentity& locked = made.encrypted_client;
    const TlsIdentity mixed{made.client.cert_file, made.server.key_file};
    const TlsIdentity none{"/none.pem", made.client.key_file};
    const auto no_key = [](const std::string& file) { return "SSL_CTX_use_PrivateKey_file[" + file + "] error"; };
    return {
        {"trusted", kNever, ""},
        {"expired", kCheck, "certificate has expired", made.expired_server},
        {"not yet valid", kCheck, "certificate is not yet valid", made.future_server},
        {"of another CA", kCheck, "unable to get local issuer certificate", made.foreign_server},
        {"self-signed", kCheck, "self-signed certificate", made.self_signed_server},
        {"without a certificate", kCheck, "peer has no certificate]", {}},
        {.name = "name to be checked",
         .fails = kCheck,
         .reason = "common name differs",
         .on_stderr = "X509_NAME_get_text_by_NID [] error",
         .options = NET_TCP_SSL_CHECK_CN},
        {.name = "asked for its own", .fails = kNever, .reason = "", .asked = true},
        {.name = "asked, of another CA",
         .fails = kRefused,
         .reason = "tlsv1 alert unknown ca",
         .client = made.foreign_server,
         .asked = true},
        {"right phrase", kNever, "", made.server, locked, kKeyPass},
        {"wrong phrase", kInit, "", made.server, locked, "sesame", no_key(locked.key_file)},
        {"no phrase", kInit, "", made.server, locked, "", no_key(locked.key_file)},
        {"key of another", kInit, "key values mismatch", made.server, mixed, "", no_key(mixed.key_file)},
        {"no certificate", kInit, "No such file or directory", made.server, none, "",
         "SSL_CTX_use_certificate_file[/none.pem] error"},
        {"no CA", kInit, "No such file or directory", made.server, made.client, "",
         "SSL_CTX_load_verify_locations error", "/none.pem"},
    };
}

/// What each end has to show, and what becomes of the line before any data goes out.
TEST_P(TlsTest, EachEndIsJudgedByWhatItShows) {
    for (const Show& row : shows()) {
        SCOPED_TRACE(row.name);
        options_.identity = row.server;
        options_.ask_client_cert = row.asked;
        options_.anonymous = row.server.cert_file.empty();
        if (options_.anonymous && GetParam() != Carrier::kTls12) {
            continue;
        }
        std::string received;
        {
            Peer peer(options_, [&](PeerConnection& connection) { received = connection.read_all(); });
            Client client(GetParam());
            set_text(client.record.sCaFile, row.ca);
            set_text(client.record.sCertFile, row.client.cert_file);
            set_text(client.record.sKeyFile, row.client.key_file);
            set_text(client.record.sKeyPass, row.phrase);
            const std::string files =
                "netTcpSSLInitCtx[" + row.client.cert_file + "] [" + row.client.key_file + "] [" + row.phrase + "] ";
            CaptureStderr();
            const bool built = client.init() == 0;
            if (built) {
                EXPECT_THAT(logged_lines().back(),
                            EndsWith("4 $net_tcp/net_tcp_client/netTcpClientInit " + files + "sucess"));
                SSL_CTX_set_cipher_list(client.record.ctx, options_.anonymous ? "aNULL:@SECLEVEL=0" : "DEFAULT");
            }
            bool up = built && client.connect(peer.port(), "127.0.0.1", row.options) == 0;
            if (row.fails == Fails::kRefused && up) { // TLS 1.3 tells only when the client thinks that the line is up
                up = !wait_until([&] { return client.write("") < 0; });
            }
            const std::string told = GetCapturedStderr();
            EXPECT_EQ(up, row.fails == Fails::kNever) << client.error();
            EXPECT_EQ(built, row.fails != Fails::kInit);
            if (row.fails == Fails::kRefused) {
                EXPECT_THAT(client.error(), testing::HasSubstr("error[" + row.reason + "]"));
            } else if (!up) {
                EXPECT_TRUE(!built || errno == EPROTO);
                EXPECT_EQ(client.record.iErrorCode, -1);
                EXPECT_THAT(client.error(),
                            testing::StartsWith((built ? "netTcpSSLCheckCert " : files) + "error[" + row.reason));
                EXPECT_TRUE(!built || options_.anonymous ||
                            client.error().ends_with(", subject O = kavro test, CN = Receiver.Test]"));
                EXPECT_THAT(client.error(), testing::Not(testing::AnyOf(EndsWith("[]"), testing::HasSubstr("null"))));
                EXPECT_THAT(logged_lines().back(), EndsWith((built ? "Connect " : "Init ") + client.error()));
                EXPECT_EQ(told, row.on_stderr + "\n");
                client.expect_down(built);
            }
            EXPECT_EQ(client.write("secret"), up ? 6 : -1);
        }
        EXPECT_EQ(received, row.fails == Fails::kNever ? "secret" : "");
    }
}

TEST_P(TlsTest, ComparesTheWholeCommonNameWhenAsked) {
    const TlsMaterial& material = tls_material();
    const struct {
        TlsIdentity server;
        const char* expected; ///< null: a null pointer
        int result;
    } cases[] = {{material.server, "rECEIVER.tEST", 0},
                 {material.server, "Receiver.Tes", -2},
                 {material.server, nullptr, -2},
                 {material.nameless_server, "", 0},
                 {material.nul_name_server, "Receiver.Test", -2}};
    for (const auto& row : cases) {
        options_.identity = row.server;
        Peer peer(options_, [](PeerConnection& connection) { connection.read_all(); });
        Client client(GetParam());
        ASSERT_TRUE(client.up(peer)) << client.error();
        std::string name = row.expected != nullptr ? row.expected : "";
        CaptureStderr();
        EXPECT_EQ(netTcpSSLCheckCert(client.record.ssl, row.expected != nullptr ? name.data() : nullptr,
                                     NET_TCP_SSL_CHECK_CN),
                  row.result);
        EXPECT_EQ(GetCapturedStderr(), row.result == 0 ? "" : "X509_NAME_get_text_by_NID [" + name + "] error\n");
    }
}

/// A null phrase asks nobody, and standard error that nobody reads, a full pipe, holds nothing up.
TEST(TlsContext, ThatFailsWaitsForNobody) {
    std::string ca = tls_material().ca_file;
    TlsIdentity locked = tls_material().encrypted_client;
    const auto fail = [&] {
        EXPECT_EQ(netTcpSSLInitCtx(ca.data(), locked.cert_file.data(), locked.key_file.data(), nullptr, 0), nullptr);
    };
    CaptureStderr();
    fail();
    locked.cert_file.assign(2000, 'n');
    fail();
    EXPECT_EQ(GetCapturedStderr(), "SSL_CTX_use_PrivateKey_file[" + locked.key_file + "] error\n" +
                                       ("SSL_CTX_use_certificate_file[" + locked.cert_file).substr(0, 1022) + "\n");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string page(4096, '-');
    while (::write(ends[1], page.data(), page.size()) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
    dup2(ends[1], STDERR_FILENO);
    fail();
    dup2(saved, STDERR_FILENO);
    for (const int end : {saved, ends[0], ends[1]}) {
        ::close(end);
    }
}

TEST(TlsHandshake, WithAPeerThatSpeaksNoTlsFailsReadably) {
    const char* said = "220 good morning, this is no TLS\r\n";
    Peer peer({}, [&](PeerConnection& connection) {
        connection.write(said);
        connection.read_all();
    });
    const std::pair<const char*, int> reasons[] = {{"wrong version number", EPROTO}, {"timed out", ETIMEDOUT}};
    for (const auto& [reason, code] : reasons) {
        Client client(Carrier::kTls13);
        client.record.iSndTimeOut = 1;
        ASSERT_EQ(client.init(NET_TCP_OPT_SNDTIMEO), 0);
        EXPECT_EQ(client.connect(peer), -1);
        EXPECT_EQ(errno, code);
        EXPECT_EQ(client.error(), "SSL_connect[127.0.0.1:" + std::to_string(peer.port()) + "] error[" + reason + "]");
        EXPECT_EQ(client.record.iErrorCode, -1);
        said = ""; // the next peer is silent
    }
    Client closed(Carrier::kTls13);
    closed.init();
    closed.close(); // with the context
    EXPECT_EQ(closed.connect(peer), -1);
    EXPECT_EQ(closed.error(), "SSL_new error[null ssl ctx]");
    EXPECT_THAT(logged_lines().back(), EndsWith("netTcpClientConnect " + closed.error()));
}

/// Late tickets come one by one between writes, "many" at once.
TEST(TlsTickets, NeitherLookLikeALostLineNorStayUnread) {
    const struct {
        const char* name;
        int tickets;
        int late;
    } cases[] = {{"default", -1, 0}, {"none", 0, 0}, {"late", 0, 1}, {"many", 10, 20}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        PeerOptions made;
        made.carrier = Carrier::kTls13;
        made.tickets = row.tickets;
        Event leave;
        std::atomic<int> answered = 0;
        Peer peer(made, [&](PeerConnection& connection) {
            while (connection.read(4) == "ping") {
                connection.send_tickets(row.late);
                answered++;
            }
            EXPECT_TRUE(leave.wait());
        });
        Client client(Carrier::kTls13);
        ASSERT_TRUE(client.up(peer)) << client.error();
        for (int i = 0; i < 20; i++) {
            ASSERT_EQ(client.write("ping"), 4) << client.error();
            ASSERT_TRUE(wait_until([&] { return answered == i + 1; }));
            EXPECT_TRUE(row.late == 0 || client.pending() > 0);
            EXPECT_EQ(sockCanRead(client.record.iSocketNo), 0);
        }
        ASSERT_EQ(client.write("quit"), 4);
        ASSERT_TRUE(wait_until([&] { return client.write("") == 0 && client.pending() == 0; }));
        leave.set();
        EXPECT_TRUE(wait_until([&] { return sockCanRead(client.record.iSocketNo) == 1; })); // the peer's close
    }
}

TEST(TlsTickets, LeftUnreadCostASlowReaderNothingAtTheClose) {
    const std::string data(100'000, 'd');
    std::string received;
    bool ended_well = false;
    Event sent;
    Event told;
    Event closed;
    {
        PeerOptions made;
        made.carrier = Carrier::kTls13;
        Peer peer(made, [&](PeerConnection& connection) {
            EXPECT_TRUE(sent.wait());
            connection.send_tickets(3);
            told.set();
            EXPECT_TRUE(closed.wait());
            received = connection.read_all();
            ended_well = connection.ended_well();
        });
        Client client(Carrier::kTls13);
        ASSERT_TRUE(client.up(peer));
        ASSERT_EQ(client.write(data), static_cast<int>(data.size()));
        sent.set();
        ASSERT_TRUE(told.wait());
        EXPECT_GT(client.pending(), 0);
        client.close();
        closed.set();
    }
    EXPECT_EQ(received.size(), data.size());
    EXPECT_TRUE(ended_well) << "a reset";
}

TEST_P(TlsTest, WhatTheReceiverSaysMeansALostLine) {
    options_.tickets = 0;
    for (const bool data : {true, false}) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{75}}) {
            Event done;
            Event told;
            Peer peer(options_, [&](PeerConnection& connection) {
                EXPECT_TRUE(told.wait());
                data ? void(connection.write("?")) : connection.send_close_alert();
                EXPECT_TRUE(done.wait());
            });
            Client client(GetParam());
            ASSERT_TRUE(client.up(peer));
            told.set();
            ASSERT_TRUE(wait_until([&] { return client.pending() > 0; }));
            // TLS 1.3's tickets look the same from outside, so there only the next write tells.
            EXPECT_EQ(sockCanRead(client.record.iSocketNo), GetParam() == Carrier::kTls12 ? 1 : 0);
            CaptureStderr();
            ERR_raise(ERR_LIB_SSL, SSL_R_NO_SHARED_CIPHER); // left over by somebody else
            EXPECT_EQ(client.write(std::string(size, 'x')), -1);
            EXPECT_EQ(GetCapturedStderr(), "write len[" + std::to_string(size) + "] writelen[0]\n");
            EXPECT_EQ(client.record.iErrorCode, -1);
            EXPECT_EQ(client.error(), "write[" + std::to_string(size) + "] ret[0] error[" +
                                          (data ? "receiver sent data]" : "connection closed by peer]"));
            EXPECT_THAT(logged_lines().back(), EndsWith("netTcpClientWrite " + client.error()));
            done.set();
        }
    }
}

/// The socket's low-water mark must not hold back a reader who waits for less. Each answer comes while it waits.
TEST_P(TlsTest, AReadReturnsWhenItsBytesAreThere) {
    constexpr int kRounds = 50;
    Event done;
    Peer peer(options_, [&](PeerConnection& connection) {
        for (int i = 0; i < kRounds && connection.read(4) == "ping"; i++) {
            connection.write("reply");
        }
        EXPECT_TRUE(done.wait());
    });
    Client client(GetParam());
    ASSERT_TRUE(client.up(peer)) << client.error();
    T_NET_TCPCLIENT& record = client.record;
    for (int i = 0; i < kRounds; i++) {
        char reply[5] = {};
        int length = 0;
        ASSERT_EQ(client.write("ping"), 4) << client.error();
        ASSERT_EQ(i % 2 == 0 ? record.pfnRead(&record, reply, 5, &length, 0)
                             : netTcpSSLReadN(reply, 5, &length, record.ssl),
                  5)
            << client.error();
        ASSERT_EQ(std::string(reply, 5), "reply");
    }
    done.set();
}

/// The host cannot stop a write in a handler, where signals that have one are held: there a second interruption without
/// progress ends it. A signal without a handler may be held anywhere.
TEST_P(TlsTest, SignalsEndAStalledWriteOnlyInAHandler) {
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGALRM);
    const pthread_t main_thread = pthread_self();
    const Handler handler([] {});
    for (const bool holds : {false, true}) {
        Client client(GetParam());
        Event done;
        std::size_t received = 0;
        {
            Peer peer(options_, [&](PeerConnection& connection) {
                EXPECT_TRUE(wait_until([&] { return client.stalled(); }));
                for (int i = 1; i <= 10; ++i) {
                    const int before = Handler::runs();
                    pthread_kill(main_thread, SIGUSR2);
                    EXPECT_TRUE(wait_until([&] { return Handler::runs() > before; }));
                }
                received = holds ? 0 : connection.read(huge_data().size()).size();
                EXPECT_TRUE(done.wait());
            });
            ASSERT_TRUE(client.up(peer)) << client.error();
            signal(SIGALRM, holds ? [](int) {} : SIG_DFL);
            pthread_sigmask(SIG_BLOCK, &held, nullptr);
            EXPECT_EQ(client.write(huge_data()), holds ? -1 : static_cast<int>(huge_data().size())) << client.error();
            pthread_sigmask(SIG_UNBLOCK, &held, nullptr);
            EXPECT_EQ(client.error().empty(), !holds);
            EXPECT_TRUE(!holds || client.error().find("error[interrupted]") != std::string::npos) << client.error();
            done.set();
        }
        EXPECT_EQ(received, holds ? 0 : huge_data().size());
    }
    signal(SIGALRM, SIG_DFL);
}

} // namespace
} // namespace kvr::test
