// SPDX-License-Identifier: MIT
// The client's operations over plain TCP, TLS 1.2 and TLS 1.3: results, error texts, log lines, ownership.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

#include <fcntl.h>
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

/// Puts a pipe in the place of a descriptor: what is written to it shows.
class Decoy {
  public:
    explicit Decoy(int descriptor) : descriptor_(descriptor), saved_(fcntl(descriptor, F_DUPFD_CLOEXEC, 10)) {
        EXPECT_EQ(pipe2(pipe_, O_CLOEXEC | O_NONBLOCK), 0);
        EXPECT_EQ(dup2(pipe_[1], descriptor), descriptor);
    }
    ~Decoy() {
        dup2(saved_, descriptor_);
        ::close(saved_);
        ::close(pipe_[0]);
        ::close(pipe_[1]);
    }
    Decoy(const Decoy&) = delete;
    Decoy& operator=(const Decoy&) = delete;
    bool untouched() const {
        char byte = 0;
        return ::read(pipe_[0], &byte, 1) < 0 && errno == EAGAIN;
    }

  private:
    int descriptor_;
    int saved_;
    int pipe_[2] = {};
};

class ClientTest : public testing::TestWithParam<Carrier> {
  protected:
    static PeerOptions options() {
        PeerOptions made;
        made.carrier = GetParam();
        return made;
    }
    static bool tls() { return GetParam() != Carrier::kPlain; }
};
INSTANTIATE_TEST_SUITE_P(Carriers, ClientTest, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& row) { return std::string(carrier_name(row.param)); });

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
    const Decoy decoy(0);
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
    EXPECT_TRUE(decoy.untouched());
}

TEST(ClientConnect, SocketsStayAboveTheStandardDescriptors) {
    Event done;
    Peer peer({}, [&](PeerConnection&) { EXPECT_TRUE(done.wait()); });
    Client first;
    ASSERT_TRUE(first.up(peer)); // keeps the peer busy, so that it accepts nothing while descriptor 0 is free
    Client client;
    ASSERT_EQ(client.init(), 0);
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    ASSERT_GE(saved, 0);
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 1; }));
    ::close(0);
    const int result = client.connect(peer);
    const int low = fcntl(0, F_GETFD);
    dup2(saved, 0);
    ::close(saved);
    done.set();
    EXPECT_EQ(result, 0);
    EXPECT_LT(low, 0);
    EXPECT_GT(client.record.iSocketNo, 2);
    EXPECT_EQ(fcntl(client.record.iSocketNo, F_GETFD), FD_CLOEXEC);
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

TEST_P(ClientTest, WriteToAResetConnectionFails) {
    Peer peer(options(), [](PeerConnection& connection) { connection.reset(); });
    Client client(GetParam());
    if (!client.up(peer)) {
        return; // the reset came before the end of the handshake
    }
    ASSERT_TRUE(wait_until([&] { return client.write("x") == -1; }));
    EXPECT_EQ(client.record.iErrorCode == -1, tls());
    EXPECT_THAT(client.error(), testing::AnyOf(HasSubstr("Connection reset by peer"), HasSubstr("Broken pipe")));
    EXPECT_EQ(client.record.iStat, 1); // the caller closes
}

TEST(ClientInit, TellsWhyAContextCannotBeBuilt) {
    const TlsMaterial& material = tls_material();
    const struct {
        const char* name;
        std::string ca, cert, key, pass, reason;
        bool built;
    } cases[] = {
        {"all right", material.ca_file, material.client.cert_file, material.client.key_file, "", "", true},
        {"no certificate", material.ca_file, "/none.pem", material.client.key_file, "", "No such file or directory",
         false},
        {"other key", material.ca_file, material.client.cert_file, material.server.key_file, "", "key values mismatch",
         false},
        {"right phrase", material.ca_file, material.encrypted_client.cert_file, material.encrypted_client.key_file,
         kKeyPass, "", true},
        {"wrong phrase", material.ca_file, material.encrypted_client.cert_file, material.encrypted_client.key_file,
         "sesame", "", false},
        {"no phrase", material.ca_file, material.encrypted_client.cert_file, material.encrypted_client.key_file, "", "",
         false},
        {"no CA", "/none.pem", material.client.cert_file, material.client.key_file, "", "No such file or directory",
         false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        Client client(Carrier::kTls13);
        T_NET_TCPCLIENT& record = client.record;
        set_text(record.sCaFile, row.ca);
        set_text(record.sCertFile, row.cert);
        set_text(record.sKeyFile, row.key);
        set_text(record.sKeyPass, row.pass);
        EXPECT_EQ(client.init(), row.built ? 0 : -1);
        EXPECT_EQ(record.ctx != nullptr, row.built);
        const std::string start = "netTcpSSLInitCtx[" + row.cert + "] [" + row.key + "] [" + row.pass + "] ";
        if (row.built) {
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
    EXPECT_EQ(client.record.iErrorCode, -1);
}

} // namespace
} // namespace kvr::test
