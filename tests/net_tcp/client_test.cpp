// SPDX-License-Identifier: MIT
// The client's operations over plain TCP, TLS 1.2 and TLS 1.3: results, error texts, log lines, ownership.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "host/children.h"
#include "net_tcp/client.h"

namespace kvr::test {

class ClientTest : public testing::TestWithParam<Carrier> {
  protected:
    /// The text is the same in the record and in the log.
    void expect_error(int code, const char* operation, const std::string& text) const {
        EXPECT_EQ(client_.iErrorCode, code);
        EXPECT_EQ(client_.error(), text);
        EXPECT_EQ(logged_lines.back(), std::string("1 ") + operation + " " + text);
    }
    Client client_{GetParam()};
    PeerOptions options_{.carrier = GetParam()};
    bool tls_ = GetParam() != Carrier::kPlain;
};
INSTANTIATE_TEST_SUITE_P(Carriers, ClientTest, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         carrier_of);

TEST_P(ClientTest, ConnectsWritesReadsAndSaysSo) {
    EXPECT_EQ(netTcpClientCreate(nullptr, record_line) + netTcpClientCreate(&client_, nullptr), -2);
    std::string data;
    while (data.size() < 16'000'000) {
        data += std::to_string(data.size());
    }
    const int size = static_cast<int>(data.size());
    const pthread_t main_thread = pthread_self();
    Peer peer(options_, [&](PeerConnection& connection) {
        mask_signal(SIG_BLOCK, SIGALRM);
        connection.write(connection.read(data.size()));
        while (connection.read(4) == "ping") {
            int signals = tls_ ? 3 : 0;
            EXPECT_TRUE(wait_until([&] { return pthread_kill(main_thread, SIGALRM) != 0 || ++signals >= 3; }));
            connection.write("reply");
        }
    });
    client_.iRcvTimeOut = kDeadlineSeconds;
    client_.iSndTimeOut = kDeadlineSeconds - 1;
    ASSERT_TRUE(client_.up(peer, NET_TCP_OPT_RCVTIMEO | NET_TCP_OPT_SNDTIMEO | NET_TCP_OPT_KEEPALIVE));
    EXPECT_EQ(client_.iStat, 1);
    EXPECT_STREQ(client_.sLocalAddr, "127.0.0.1");
    EXPECT_STREQ(client_.sRemoteAddr, "127.0.0.1");
    EXPECT_EQ(client_.iRemotePort, peer.port());
    EXPECT_GT(client_.iLocalPort, 0);
    EXPECT_EQ(fcntl(client_.iSocketNo, F_GETFD), FD_CLOEXEC);

    struct sigaction interrupts {}; // no SA_RESTART
    interrupts.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupts, nullptr);
    repeat_alarm(tls_ ? 0 : 100);
    EXPECT_EQ(client_.write(data), size);
    EXPECT_EQ(client_.read(size), size);
    repeat_alarm(0);
    EXPECT_TRUE(client_.got == data);
    const TlsIdentity& own = tls_material().client;
    const std::string count = "[" + std::to_string(size) + "]";
    std::vector<std::string> expected = {"5 Connect create new socket", "5 Connect set rcv time out[20]",
                                         "5 Connect set snd time out[19]", "5 Connect set keepalive[1]",
                                         "4 Connect connect[127.0.0.1:" + std::to_string(peer.port()) + "] success"};
    if (tls_) {
        expected.insert(expected.begin() + 4,
                        {"5 Connect SSL_connect success.", "5 Connect netTcpSSLCheckCert success."});
        expected.insert(expected.begin(),
                        "4 Init netTcpSSLInitCtx[" + own.cert_file + "] [" + own.key_file + "] [] sucess");
        expected.push_back("5 Write netTcpSSLWriteN " + count + " success.");
        expected.push_back("5 Read netTcpSSLReadN " + count + " success.");
    }
    EXPECT_EQ(logged_lines, expected);
    EXPECT_EQ(client_.write(""), 0);
    EXPECT_EQ(client_.read(0), 0);
    // Each answer comes, behind signals, while the client waits for it.
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(client_.write("ping"), 4) << client_.error();
        ASSERT_EQ(client_.read(5), 5) << client_.error();
        ASSERT_EQ(client_.got, "reply");
    }
    client_.close();
    EXPECT_TRUE(client_.is_down(false));
}

TEST_P(ClientTest, AFailedConnectLeavesNoSocketAndTheNextReplacesWhatStands) {
    ASSERT_EQ(client_.init(), 0);
    constexpr int unused = 1; // where nobody listens
    const std::string refused = "connect[127.0.0.1:1] error[111:Connection refused]";
    const int before = open_descriptors();
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(client_.connect(unused), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        expect_error(ECONNREFUSED, "Connect", refused);
    }
    EXPECT_EQ(client_.connect(2, ""), -1);
    EXPECT_EQ(client_.iRemotePort, unused);
    EXPECT_EQ(client_.error(), "sockGetHostIp[127.0.0.1] error[22:Invalid argument]");
    EXPECT_EQ(logged_lines.back(), "1 Connect sockGetHostIp[127.0.0.1] error[22][Invalid argument]");
    EXPECT_EQ(client_.connect(65536), -1);
    expect_error(EINVAL, "Connect", "connect[127.0.0.1:65536] error[22:Invalid argument]");
    const std::string reason = std::string(tls_ ? "" : "107:") + "Transport endpoint is not connected]";
    EXPECT_EQ(client_.write("x"), -1);
    EXPECT_EQ(errno, ENOTCONN);
    expect_error(tls_ ? -1 : ENOTCONN, "Write", "write[1] ret[-1] error[" + reason);
    EXPECT_EQ(client_.read(1), -1);
    expect_error(ENOTCONN, "Read", "read[1:0] ret[-1] error[" + reason);
    EXPECT_TRUE(client_.is_down(tls_));
    {
        Peer peer(options_, &PeerConnection::read_all);
        EXPECT_EQ(client_.connect(peer.port()), 0) << client_.error();
        EXPECT_EQ(client_.error(), "");
        EXPECT_EQ(client_.iErrorCode, 0);
        EXPECT_EQ(client_.connect(peer.port()), 0); // connected already
        EXPECT_EQ(client_.init(), 0);               // not closed first
        EXPECT_TRUE(client_.is_down(tls_));
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_P(ClientTest, WhatAReceiverSaysMeansALostLine) {
    for (const std::string sent : {"", "abc"}) {
        Peer peer(options_, [&](PeerConnection& connection) {
            connection.write(sent);
            connection.send_close_alert();
        });
        ASSERT_TRUE(client_.up(peer)) << client_.error();
        if (tls_) {
            EXPECT_TRUE(wait_until([&] {
                ERR_raise(ERR_LIB_SSL, SSL_R_NO_SHARED_CIPHER); // left over by somebody else
                return client_.write("") < 0;
            }));
            expect_error(-1, "Write",
                         std::string("write[0] ret[0] error[") +
                             (sent.empty() ? "connection closed by peer]" : "receiver sent data]"));
        }
        EXPECT_EQ(client_.read(8), 0);
        EXPECT_EQ(client_.got, sent);
        expect_error(0, "Read",
                     "read[8:" + std::to_string(sent.size()) + "] ret[0] error[" + (tls_ ? "" : "0:") +
                         "connection closed by peer]");
    }
}

} // namespace kvr::test
