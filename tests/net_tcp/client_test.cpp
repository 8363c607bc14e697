// SPDX-License-Identifier: MIT
// The client's operations over plain TCP, TLS 1.2 and TLS 1.3: results, error texts, log lines, ownership.
#include <cerrno>
#include <chrono>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp/client.h"

/// errno of the next look-ups, which then fail; 0: they are the host's.
static int look_up_error = 0;

extern "C" __attribute__((visibility("default"))) int sockGetHostIp(char* host, char* address) {
    errno = look_up_error;
    static const auto host_function = reinterpret_cast<int (*)(char*, char*)>(dlsym(RTLD_NEXT, "sockGetHostIp"));
    return look_up_error != 0 ? -1 : host_function(host, address);
}

namespace kvr::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::string line(int level, const std::string& function, const std::string& text) {
    return std::to_string(level) + " $net_tcp/net_tcp_client/netTcpClient" + function + " " + text;
}

class ClientTest : public CarrierTest {
  protected:
    Client client_{GetParam()};
    T_NET_TCPCLIENT& record_ = client_.record;
};
INSTANTIATE_TEST_SUITE_P(Carriers, ClientTest, kAllCarriers, carrier_of);

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
    std::string data(1'000'000, '\0');
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<char>(i * 31 + i / 251);
    }
    Peer peer(options_, [&](PeerConnection& connection) {
        connection.write(connection.read(data.size()));
        connection.read_all();
    });
    record_.iRcvTimeOut = 9;
    record_.iSndTimeOut = 8;
    ASSERT_TRUE(client_.up(peer, NET_TCP_OPT_RCVTIMEO | NET_TCP_OPT_SNDTIMEO | NET_TCP_OPT_KEEPALIVE));
    EXPECT_EQ(record_.iStat, 1);
    EXPECT_STREQ(record_.sLocalAddr, "127.0.0.1");
    EXPECT_STREQ(record_.sRemoteAddr, "127.0.0.1");
    EXPECT_EQ(record_.iRemotePort, peer.port());
    EXPECT_GT(record_.iLocalPort, 0);
    for (const auto& [option, expected] : {std::pair(SO_KEEPALIVE, 1), {SO_SNDTIMEO, 8}, {SO_RCVTIMEO, 9}}) {
        timeval value{}; // the seconds come first
        socklen_t length = sizeof(value);
        getsockopt(record_.iSocketNo, SOL_SOCKET, option, &value, &length);
        EXPECT_EQ(static_cast<int>(value.tv_sec), expected) << option;
    }
    EXPECT_EQ(fcntl(record_.iSocketNo, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(tls() || (fcntl(record_.iSocketNo, F_GETFL) & O_NONBLOCK) == 0);
    std::vector<std::string> expected = {
        line(5, "Connect", "create new socket"), line(5, "Connect", "set rcv time out[9]"),
        line(5, "Connect", "set snd time out[8]"), line(5, "Connect", "set keepalive[1]")};
    if (tls()) {
        const TlsIdentity& identity = tls_material().client;
        expected.insert(
            expected.begin(),
            line(4, "Init", "netTcpSSLInitCtx[" + identity.cert_file + "] [" + identity.key_file + "] [] sucess"));
        expected.push_back(line(5, "Connect", "SSL_connect success."));
        expected.push_back(line(5, "Connect", "netTcpSSLCheckCert success."));
    }
    expected.push_back(line(4, "Connect", "connect[127.0.0.1:" + std::to_string(peer.port()) + "] success"));
    EXPECT_EQ(logged_lines(), expected);
    logged_lines().clear();

    // One byte short of a record, one more, and the rest.
    std::size_t at = 0;
    for (const std::size_t size : {std::size_t{0}, std::size_t{16383}, std::size_t{16385}, data.size() - 32768}) {
        EXPECT_EQ(client_.write(data.substr(at, size)), static_cast<int>(size));
        at += size;
    }
    std::string back(data.size(), '\0');
    int done = -7;
    const int size = static_cast<int>(back.size());
    EXPECT_EQ(record_.pfnRead(&record_, back.data(), 0, &done, 0), 0);
    EXPECT_EQ(record_.pfnRead(&record_, back.data(), size, &done, 0), size);
    EXPECT_EQ(done, size);
    EXPECT_TRUE(back == data);
    if (tls()) {
        EXPECT_THAT(logged_lines(), Contains(line(5, "Write", "netTcpSSLWriteN [16385] success.")));
        EXPECT_THAT(logged_lines(), Contains(line(5, "Read", "netTcpSSLReadN [1000000] success.")));
    } else {
        EXPECT_TRUE(logged_lines().empty());
    }
    EXPECT_EQ(client_.close(), 0);
    client_.expect_down(false);
}

TEST_P(ClientTest, FailedConnectLeavesNoSocketAndCanBeRepeated) {
    ASSERT_EQ(client_.init(), 0);
    const int before = open_descriptors();
    const int port = std::make_unique<Peer>(PeerOptions(), [](PeerConnection&) {})->port(); // nothing listens any more
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(client_.connect(port), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(record_.iErrorCode, ECONNREFUSED);
        EXPECT_EQ(client_.error(), "connect[127.0.0.1:" + std::to_string(port) + "] error[111:Connection refused]");
        EXPECT_EQ(logged_lines().back(), line(1, "Connect", client_.error()));
        client_.expect_down(tls());
    }
    EXPECT_EQ(client_.connect(1, "host..invalid"), -1);
    EXPECT_EQ(record_.iRemotePort, port);
    const std::string code = std::to_string(record_.iErrorCode);
    EXPECT_THAT(client_.error(), testing::StartsWith("sockGetHostIp[127.0.0.1] error[" + code + ":"));
    EXPECT_THAT(logged_lines().back(), HasSubstr("1 $net_tcp/net_tcp_client/netTcpClientConnect sockGetHostIp["));
    EXPECT_THAT(logged_lines().back(), HasSubstr("error[" + code + "]["));
    look_up_error = 12345;
    EXPECT_EQ(client_.connect(1), -1);
    look_up_error = 0;
    EXPECT_THAT(client_.error(), HasSubstr("error[12345:Unknown error 12345]"));
    for (const int bad_port : {-1, 65536}) {
        EXPECT_EQ(client_.connect(bad_port), -1);
        EXPECT_EQ(record_.iErrorCode, EINVAL);
    }
    EXPECT_EQ(open_descriptors(), before);

    Peer peer(options_, [](PeerConnection& connection) { connection.read_all(); });
    EXPECT_EQ(client_.connect(peer), 0) << client_.error();
    EXPECT_EQ(client_.error(), "");
    EXPECT_EQ(record_.iErrorCode, 0);
    client_.close(); // before the peer waits for it
}

TEST_P(ClientTest, ANewConnectionReplacesTheOldOne) {
    Peer peer(options_, [&](PeerConnection& connection) { connection.read_all(); });
    ASSERT_TRUE(client_.up(peer));
    EXPECT_EQ(client_.connect(peer), 0); // connected already
    EXPECT_EQ(client_.init(), 0);        // not closed first
    client_.expect_down(tls());
    EXPECT_EQ(client_.connect(peer), 0);
    EXPECT_TRUE(wait_until([&] { return peer.accepted() == 3; })); // one after the other: two have ended
    client_.close();
    record_.iStat = 7;
    EXPECT_EQ(client_.close(), 0); // no socket: the state stays
    EXPECT_EQ(record_.iStat, 7);
}

TEST_P(ClientTest, WithoutAConnectionOperationsSaySo) {
    ASSERT_EQ(client_.init(), 0);
    const std::string reason = std::string(tls() ? "" : "107:") + "Transport endpoint is not connected]";
    for (const std::size_t size : {std::size_t{0}, std::size_t{75}}) {
        EXPECT_EQ(client_.write(std::string(size, 'x')), -1);
        EXPECT_EQ(errno, ENOTCONN);
        EXPECT_EQ(record_.iErrorCode, tls() ? -1 : ENOTCONN);
        EXPECT_EQ(client_.error(), "write[" + std::to_string(size) + "] ret[-1] error[" + reason);
        EXPECT_EQ(logged_lines().back(), line(1, "Write", client_.error()));
    }
    char byte = 0;
    int done = 3;
    EXPECT_EQ(record_.pfnRead(&record_, &byte, 1, &done, 0), -1);
    EXPECT_EQ(client_.error(), "read[1:0] ret[-1] error[" + reason);
    EXPECT_EQ(client_.close(), 0);
}

TEST_P(ClientTest, ReadTellsTheEndOfTheConnection) {
    for (const std::size_t sent : {std::size_t{0}, std::size_t{3}}) {
        Peer peer(options_, [&](PeerConnection& connection) {
            connection.write(std::string(sent, 'a'));
            connection.send_close_alert();
        });
        ASSERT_TRUE(client_.up(peer)) << client_.error();
        char buffer[8] = {};
        int done = 0;
        EXPECT_EQ(record_.pfnRead(&record_, buffer, 8, &done, 0), 0);
        EXPECT_EQ(done, static_cast<int>(sent));
        EXPECT_EQ(record_.iErrorCode, 0);
        EXPECT_THAT(client_.error(), HasSubstr("connection closed by peer"));
        EXPECT_EQ(logged_lines().back(), line(1, "Read", client_.error()));
    }
}

/// A great send buffer counts as writable only when a third of it is free, here after more than the send time-out.
TEST_P(ClientTest, SendTimeOutRunsOnlyWhileThePeerTakesNothing) {
    constexpr int kSendBuffer = 150'000;
    constexpr std::size_t kSlowBytes = 100'000;
    constexpr std::size_t kSlowBytesPerSecond = 50'000;
    options_.receive_buffer = 4096;
    const std::string data(450'000, 'd');
    for (const bool takes : {true, false}) {
        Event done;
        std::size_t received = 0;
        {
            Peer peer(options_, [&](PeerConnection& connection) {
                for (const auto start = std::chrono::steady_clock::now(); takes && received < kSlowBytes;) {
                    received += connection.read(kSlowBytesPerSecond / 50).size();
                    std::this_thread::sleep_until(start + std::chrono::seconds(1) * received / kSlowBytesPerSecond);
                }
                if (takes) {
                    received += connection.read_all().size();
                } else {
                    EXPECT_TRUE(done.wait());
                }
            });
            client_.record.iSndTimeOut = 1;
            ASSERT_TRUE(client_.up(peer, NET_TCP_OPT_SNDTIMEO)) << client_.error();
            setsockopt(record_.iSocketNo, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
            EXPECT_EQ(client_.write(data), takes ? static_cast<int>(data.size()) : -1) << client_.error();
            const char* reason = takes ? "" : tls() ? "timed out]" : "11:Resource temporarily unavailable]";
            EXPECT_THAT(client_.error(), testing::EndsWith(reason));
            client_.close();
            done.set();
        }
        EXPECT_EQ(received, takes ? data.size() : 0);
    }
}

TEST(ClientInit, CutsAnErrorText) {
    Client client(Carrier::kTls13);
    for (char* field : {client.record.sCertFile, client.record.sKeyFile, client.record.sKeyPass}) {
        memset(field, 'n', 511);
    }
    EXPECT_EQ(client.init(), -1); // three such names do not fit the error text
    EXPECT_EQ(client.error().size(), sizeof(client.record.sErrorStr) - 1);
}

} // namespace
} // namespace kvr::test
