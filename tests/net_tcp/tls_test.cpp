// SPDX-License-Identifier: MIT
// TLS on a line that only writes: the check of the peer, tickets, what a receiver may say, and time limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <openssl/ssl.h>
#include <pthread.h>

#include "net_tcp/client.h"
#include "net_tcp_common.h"

namespace kvr::test {
namespace {

using testing::HasSubstr;

using TlsTest = CarrierTest;
INSTANTIATE_TEST_SUITE_P(Carriers, TlsTest, testing::Values(Carrier::kTls12, Carrier::kTls13), carrier_of);

TEST_P(TlsTest, JudgesThePeerBeforeAnyDataGoesOut) {
    const TlsMaterial& material = tls_material();
    const struct {
        const char* name;
        TlsIdentity identity;
        int connect_options;
        const char* reason; ///< null: accepted
    } cases[] = {
        {"trusted", material.server, 0, nullptr},
        {"expired", material.expired_server, 0, "certificate has expired"},
        {"not yet valid", material.future_server, 0, "certificate is not yet valid"},
        {"of another CA", material.foreign_server, 0, "unable to get local issuer certificate"},
        {"self-signed", material.self_signed_server, 0, "self-signed certificate"},
        {"name to be checked", material.server, NET_TCP_SSL_CHECK_CN, "common name differs"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        PeerOptions made = options();
        made.identity = row.identity;
        std::string received;
        {
            Peer peer(made, [&](PeerConnection& connection) { received = connection.read_all(); });
            Client client(GetParam());
            ASSERT_EQ(client.init(), 0);
            const int before = open_descriptors();
            EXPECT_EQ(client.connect(peer.port(), "127.0.0.1", row.connect_options), row.reason == nullptr ? 0 : -1);
            if (row.reason != nullptr) {
                EXPECT_EQ(client.error(), std::string("netTcpSSLCheckCert error[") + row.reason + "]");
                EXPECT_EQ(client.record.iErrorCode, -1);
                EXPECT_EQ(client.record.iSocketNo, 0);
                EXPECT_EQ(client.record.ssl, nullptr);
                EXPECT_NE(client.record.ctx, nullptr);
                EXPECT_EQ(client.record.iStat, 0);
                EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
            }
            EXPECT_EQ(client.write("secret"), row.reason == nullptr ? 6 : -1);
        }
        EXPECT_EQ(received, row.reason == nullptr ? "secret" : "");
    }
}

TEST(TlsPeer, WithoutACertificateIsRefused) {
    PeerOptions made;
    made.carrier = Carrier::kTls12;
    made.anonymous = true;
    Peer peer(made, [](PeerConnection& connection) { connection.read_all(); });
    Client client(Carrier::kTls12);
    ASSERT_EQ(client.init(), 0);
    SSL_CTX_set_cipher_list(client.record.ctx, "aNULL:@SECLEVEL=0");
    EXPECT_EQ(client.connect(peer), -1);
    EXPECT_EQ(client.error(), "netTcpSSLCheckCert error[peer has no certificate]");
}

TEST(TlsHandshake, WithAPlainPeerFailsReadably) {
    Peer peer({}, [](PeerConnection& connection) {
        connection.write("220 good morning, this is no TLS\r\n");
        connection.read_all();
    });
    Client client(Carrier::kTls13);
    ASSERT_EQ(client.init(), 0);
    EXPECT_EQ(client.connect(peer), -1);
    EXPECT_EQ(client.error(), "SSL_connect[127.0.0.1:" + std::to_string(peer.port()) + "] error[wrong version number]");
    EXPECT_EQ(client.record.iErrorCode, -1);
}

TEST(TlsHandshake, WithASilentPeerEndsByTheSendTimeOutOrASignal) {
    Event done;
    Peer peer({}, [&](PeerConnection&) { EXPECT_TRUE(done.wait()); });
    const Handler handler([] {});
    for (const bool timed : {true, false}) {
        Client client(Carrier::kTls13);
        client.record.iSndTimeOut = timed ? 1 : 0;
        ASSERT_EQ(client.init(timed ? NET_TCP_OPT_SNDTIMEO : 0), 0);
        const auto signals = timed ? nullptr : std::make_unique<Pestering>();
        EXPECT_EQ(client.connect(peer), -1);
        // A signal ends the handshake, or the connect before it.
        EXPECT_THAT(client.error(), HasSubstr(timed ? "] error[timed out]" : "nterrupted"));
    }
    done.set();
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
            EXPECT_FALSE(client.readable());
        }
        ASSERT_EQ(client.write("quit"), 4);
        ASSERT_TRUE(wait_until([&] { return client.write("") == 0 && client.pending() == 0; }));
        EXPECT_EQ(client.record.iStat, 1);
        leave.set();
        EXPECT_TRUE(wait_until([&] { return client.readable(); })); // the peer's close still shows
    }
}

TEST(TlsTickets, LeftUnreadDoNotTakeDataAwayFromASlowReader) {
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
    EXPECT_TRUE(ended_well);
}

TEST_P(TlsTest, WhatTheReceiverSaysMeansALostLine) {
    for (const bool data : {true, false}) {
        for (const int size : {0, 75}) {
            Event done;
            Event told;
            PeerOptions made = options();
            made.tickets = 0;
            Peer peer(made, [&](PeerConnection& connection) {
                EXPECT_TRUE(told.wait());
                data ? void(connection.write("?")) : connection.send_close_alert();
                EXPECT_TRUE(done.wait());
            });
            Client client(GetParam());
            ASSERT_TRUE(client.up(peer));
            told.set();
            ASSERT_TRUE(wait_until([&] { return client.pending() > 0; }));
            logged_lines().clear();
            EXPECT_EQ(client.write(std::string(static_cast<std::size_t>(size), 'x')), -1);
            EXPECT_EQ(client.record.iErrorCode, -1);
            EXPECT_EQ(client.error(), "write[" + std::to_string(size) + "] ret[-1] error[" +
                                          (data ? "receiver sent data]" : "connection closed by peer]"));
            EXPECT_EQ(logged_lines().at(0).level, 1);
            done.set();
        }
    }
}

/// The reader takes a little now and then, far more often than the send time-out: it must not hold a write for ever.
TEST_P(TlsTest, SendTimeOutCoversAWriteAsAWhole) {
    Event done;
    std::atomic<bool> stop = false;
    PeerOptions made = options();
    made.receive_buffer = 4096;
    Peer peer(made, [&](PeerConnection& connection) {
        while (!stop) {
            connection.read(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    Client client(GetParam());
    client.record.iSndTimeOut = 1;
    ASSERT_TRUE(client.up(peer, NET_TCP_OPT_SNDTIMEO)) << client.error();
    EXPECT_EQ(client.write(huge_data()), -1);
    EXPECT_THAT(client.error(), testing::EndsWith("error[timed out]"));
    stop = true;
}

TEST_P(TlsTest, SignalsDoNotEndAStalledWriteButWhereTheHostCannotStopIt) {
    const std::string& data = huge_data();
    std::string received;
    Event stalled;
    Event go_on;
    const pthread_t main_thread = pthread_self();
    const Handler handler([] {});
    {
        Peer peer(options(), [&](PeerConnection& connection) {
            EXPECT_TRUE(wait_until([&] { return connection.pending() > 100'000; }));
            for (int i = 1; i <= 10; ++i) {
                pthread_kill(main_thread, SIGUSR2);
                EXPECT_TRUE(wait_until([&] { return Handler::runs() == i; }));
            }
            received = connection.read(data.size());
            stalled.set();
            EXPECT_TRUE(go_on.wait());
        });
        Client client(GetParam());
        ASSERT_TRUE(client.up(peer)) << client.error();
        ASSERT_EQ(client.write(data), static_cast<int>(data.size())) << client.error();
        ASSERT_TRUE(stalled.wait());
        const Pestering signals;
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &held, nullptr);
        EXPECT_EQ(client.write(data), -1);
        pthread_sigmask(SIG_UNBLOCK, &held, nullptr);
        EXPECT_THAT(client.error(), testing::EndsWith("error[interrupted]"));
        go_on.set();
    }
    EXPECT_EQ(received.size(), data.size());
}

} // namespace
} // namespace kvr::test
