// SPDX-License-Identifier: MIT
// The client's operations over plain TCP, TLS 1.2 and TLS 1.3: results, error texts, log lines, ownership.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp/client.h"

namespace kvr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

std::string pattern(std::size_t size) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; i++) {
        data[i] = static_cast<char>(i * 31 + i / 251);
    }
    return data;
}

LoggedLine line(int level, const char* function, const std::string& text) {
    return {level, std::string("$net_tcp/net_tcp_client/netTcpClient") + function, text};
}

/// A port on which nothing listens.
int free_port() {
    const Peer peer({}, [](PeerConnection&) {});
    return peer.port();
}

using ClientTest = CarrierTest;
INSTANTIATE_TEST_SUITE_P(Carriers, ClientTest, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         carrier_of);

TEST(ClientCreate, RefusesNullAndClearsTheRecord) {
    T_NET_TCPCLIENT record;
    memset(static_cast<void*>(&record), 0x5a, sizeof(record));
    EXPECT_EQ(netTcpClientCreate(nullptr, record_line), -1);
    EXPECT_EQ(netTcpClientCreate(&record, nullptr), -1);
    EXPECT_EQ(record.iSocketNo, 0x5a5a5a5a);
    EXPECT_EQ(netTcpClientCreate(&record, record_line), 0);
    const T_NET_TCPCLIENT zero{};
    EXPECT_EQ(memcmp(&record, &zero, offsetof(T_NET_TCPCLIENT, pfnInit)), 0);
    EXPECT_EQ(record.pfnLogPrint, record_line);
}

TEST_P(ClientTest, ConnectsWritesReadsAndSaysSo) {
    const std::string data = pattern(1'000'000);
    Peer peer(options(), [&](PeerConnection& connection) {
        connection.write(connection.read(data.size()));
        connection.read_all();
    });
    Client client(GetParam());
    client.record.iRcvTimeOut = 9;
    client.record.iSndTimeOut = 8;
    ASSERT_TRUE(client.up(peer, NET_TCP_OPT_RCVTIMEO | NET_TCP_OPT_SNDTIMEO | NET_TCP_OPT_KEEPALIVE)) << client.error();
    const T_NET_TCPCLIENT& record = client.record;
    EXPECT_EQ(record.iStat, 1);
    EXPECT_STREQ(record.sLocalAddr, "127.0.0.1");
    EXPECT_STREQ(record.sRemoteAddr, "127.0.0.1");
    EXPECT_EQ(record.iRemotePort, peer.port());
    EXPECT_GT(record.iLocalPort, 0);
    EXPECT_EQ(fcntl(record.iSocketNo, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(record.iSocketNo, F_GETFL) & O_NONBLOCK, 0);

    std::vector<LoggedLine> expected = {
        line(5, "Connect", "create new socket"), line(5, "Connect", "set rcv time out[9]"),
        line(5, "Connect", "set snd time out[8]"), line(5, "Connect", "set keepalive[1]")};
    if (tls()) {
        expected.insert(expected.begin(), line(4, "Init",
                                               std::string("netTcpSSLInitCtx[") + record.sCertFile + "] [" +
                                                   record.sKeyFile + "] [] sucess"));
        expected.push_back(line(5, "Connect", "SSL_connect success."));
        expected.push_back(line(5, "Connect", "netTcpSSLCheckCert success."));
    }
    expected.push_back(line(4, "Connect", "connect[127.0.0.1:" + std::to_string(peer.port()) + "] success"));
    EXPECT_EQ(logged_lines(), expected);
    logged_lines().clear();

    // One byte short of a record, one more, and the rest.
    std::size_t at = 0;
    for (const std::size_t size : {std::size_t{0}, std::size_t{16383}, std::size_t{16385}, data.size() - 32768}) {
        EXPECT_EQ(client.write(data.substr(at, size)), static_cast<int>(size));
        at += size;
    }
    std::string back(data.size(), '\0');
    int done = -7;
    const int size = static_cast<int>(back.size());
    EXPECT_EQ(client.record.pfnRead(&client.record, back.data(), 0, &done, 0), 0);
    EXPECT_EQ(client.record.pfnRead(&client.record, back.data(), size, &done, 0), size);
    EXPECT_EQ(done, size);
    EXPECT_TRUE(back == data);
    if (tls()) {
        EXPECT_THAT(logged_lines(), Contains(line(5, "Write", "netTcpSSLWriteN [16385] success.")));
        EXPECT_THAT(logged_lines(), Contains(line(5, "Read", "netTcpSSLReadN [1000000] success.")));
    } else {
        EXPECT_TRUE(logged_lines().empty());
    }
    EXPECT_EQ(client.close(), 0);
    EXPECT_EQ(record.iStat, 0);
    EXPECT_EQ(record.iSocketNo, 0);
    EXPECT_EQ(record.ssl, nullptr);
    EXPECT_EQ(record.ctx, nullptr);
}

TEST_P(ClientTest, FailedConnectLeavesNoSocketAndCanBeRepeated) {
    Client client(GetParam());
    ASSERT_EQ(client.init(), 0);
    const int before = open_descriptors();
    for (int i = 0; i < 2; i++) {
        logged_lines().clear();
        const int port = free_port();
        EXPECT_EQ(client.connect(port), -1);
        EXPECT_EQ(client.record.iErrorCode, ECONNREFUSED);
        const std::string text = "connect[127.0.0.1:" + std::to_string(port) + "] error[111:Connection refused]";
        EXPECT_EQ(client.error(), text);
        EXPECT_EQ(client.record.iSocketNo, 0);
        EXPECT_THAT(logged_lines(), ElementsAre(line(5, "Connect", "create new socket"), line(1, "Connect", text)));
    }
    logged_lines().clear();
    const int port = client.record.iRemotePort;
    EXPECT_EQ(client.connect(1, "host..invalid"), -1);
    EXPECT_EQ(client.record.iRemotePort, port);
    EXPECT_NE(client.record.iErrorCode, 0);
    EXPECT_THAT(client.error(), testing::StartsWith("sockGetHostIp[127.0.0.1] error[" +
                                                    std::to_string(client.record.iErrorCode) + ":"));
    EXPECT_THAT(logged_lines().back().text, HasSubstr("error[" + std::to_string(client.record.iErrorCode) + "]["));
    for (const int bad_port : {-1, 65536}) {
        EXPECT_EQ(client.connect(bad_port), -1);
        EXPECT_EQ(client.record.iErrorCode, EINVAL);
    }
    EXPECT_EQ(open_descriptors(), before);

    Peer peer(options(), [](PeerConnection& connection) { connection.read_all(); });
    EXPECT_EQ(client.connect(peer), 0) << client.error();
    EXPECT_STREQ(client.record.sErrorStr, "");
    EXPECT_EQ(client.record.iErrorCode, 0);
    client.close(); // before the peer waits for it
}

TEST_P(ClientTest, EveryNewConnectionReplacesTheOldOneWithoutLeaking) {
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
    Peer peer(options(), [&](PeerConnection& connection) {
        begun++;
        connection.read_all();
        ended++;
    });
    Client client(GetParam());
    ASSERT_TRUE(client.up(peer));
    ASSERT_TRUE(wait_until([&] { return begun == 1; }));
    const int descriptors = open_descriptors();
    EXPECT_EQ(client.connect(peer), 0); // connected already
    EXPECT_TRUE(wait_until([&] { return ended == 1; }));
    EXPECT_EQ(client.init(), 0); // not closed first
    EXPECT_EQ(client.record.iSocketNo, 0);
    EXPECT_EQ(client.record.iStat, 0);
    EXPECT_EQ(client.connect(peer), 0);
    EXPECT_TRUE(wait_until([&] { return ended == 2; }));
    EXPECT_TRUE(wait_until([&] { return begun == 3; }));
    EXPECT_EQ(open_descriptors(), descriptors);

    client.record.iStat = 7;
    EXPECT_EQ(client.close(), 0);
    EXPECT_EQ(client.record.iStat, 0);
    client.record.iStat = 7;
    EXPECT_EQ(client.init(), 0);
    client.record.iStat = 7;
    EXPECT_EQ(client.close(), 0); // no socket: only the context goes
    EXPECT_EQ(client.record.iStat, 7);
    EXPECT_EQ(client.record.ctx, nullptr);
}

TEST_P(ClientTest, WithoutAConnectionNothingTouchesDescriptorZero) {
    Client client(GetParam());
    ASSERT_EQ(client.init(), 0);
    int ends[2]; // whatever is written to descriptor 0 shows at the other end
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    dup2(ends[1], 0);
    const std::string reason =
        tls() ? "Transport endpoint is not connected" : "107:Transport endpoint is not connected";
    for (const std::size_t size : {std::size_t{0}, std::size_t{75}}) {
        EXPECT_EQ(client.write(std::string(size, 'x')), -1);
        EXPECT_EQ(client.record.iErrorCode, ENOTCONN);
        EXPECT_EQ(client.error(), "write[" + std::to_string(size) + "] ret[-1] error[" + reason + "]");
        EXPECT_EQ(logged_lines().back(), line(1, "Write", client.error()));
    }
    char byte = 0;
    int done = 3;
    EXPECT_EQ(client.record.pfnRead(&client.record, &byte, 1, &done, 0), -1);
    EXPECT_EQ(client.error(), "read[1:3] ret[-1] error[" + reason + "]");
    EXPECT_EQ(client.close(), 0);
    EXPECT_GE(dup2(saved, 0), 0) << "descriptor 0 was closed";
    EXPECT_LT(::read(ends[0], &byte, 1), 0);
    EXPECT_EQ(errno, EAGAIN);
    for (const int end : {saved, ends[0], ends[1]}) {
        ::close(end);
    }
}

TEST_P(ClientTest, ReadTellsTheEndOfTheConnection) {
    for (const std::size_t sent : {std::size_t{0}, std::size_t{3}}) {
        Peer peer(options(), [&](PeerConnection& connection) {
            connection.write(std::string(sent, 'a'));
            connection.send_close_alert();
        });
        Client client(GetParam());
        ASSERT_TRUE(client.up(peer)) << client.error();
        char buffer[8] = {};
        int done = 0;
        EXPECT_EQ(client.record.pfnRead(&client.record, buffer, 8, &done, 0), 0);
        EXPECT_EQ(done, static_cast<int>(sent));
        EXPECT_EQ(client.record.iErrorCode, 0);
        EXPECT_THAT(client.error(), HasSubstr("connection closed by peer"));
        EXPECT_EQ(logged_lines().back(), line(1, "Read", client.error()));
    }
}

TEST(ClientInit, TellsWhyAContextCannotBeBuilt) {
    const TlsMaterial& made = tls_material();
    const TlsIdentity mixed{made.client.cert_file, made.server.key_file};
    const struct {
        const char* name;
        std::string ca;
        TlsIdentity identity;
        const char *pass, *reason; ///< reason null: built
    } cases[] = {
        {"right phrase", made.ca_file, made.encrypted_client, kKeyPass, nullptr},
        {"wrong phrase", made.ca_file, made.encrypted_client, "sesame", ""},
        {"no phrase", made.ca_file, made.encrypted_client, "", ""},
        {"no certificate", made.ca_file, {"/none.pem", made.client.key_file}, "", "No such file or directory"},
        {"other key", made.ca_file, mixed, "", "key values mismatch"},
        {"no CA", "/none.pem", made.client, "", "No such file or directory"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        Client client(Carrier::kTls13);
        T_NET_TCPCLIENT& record = client.record;
        set_text(record.sCaFile, row.ca);
        set_text(record.sCertFile, row.identity.cert_file);
        set_text(record.sKeyFile, row.identity.key_file);
        set_text(record.sKeyPass, row.pass);
        const bool built = row.reason == nullptr;
        EXPECT_EQ(client.init(), built ? 0 : -1);
        EXPECT_EQ(record.ctx != nullptr, built);
        const std::string start =
            "netTcpSSLInitCtx[" + row.identity.cert_file + "] [" + row.identity.key_file + "] [" + row.pass + "] ";
        if (built) {
            EXPECT_EQ(logged_lines().back(), line(4, "Init", start + "sucess"));
            continue;
        }
        EXPECT_EQ(record.iErrorCode, -1);
        EXPECT_THAT(client.error(), testing::StartsWith(start + "error[" + row.reason));
        EXPECT_THAT(client.error(), testing::Not(testing::AnyOf(HasSubstr("[]]"), HasSubstr("null"))));
        EXPECT_EQ(logged_lines().back(), line(1, "Init", client.error()));
    }

    Client client(Carrier::kTls13);
    for (char* field : {client.record.sCertFile, client.record.sKeyFile, client.record.sKeyPass}) {
        memset(field, 'n', 511);
    }
    EXPECT_EQ(client.init(), -1); // three such names do not fit the error text
    EXPECT_EQ(client.error().size(), sizeof(client.record.sErrorStr) - 1);
}

} // namespace
} // namespace kvr::test
