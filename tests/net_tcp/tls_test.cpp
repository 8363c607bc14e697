// SPDX-License-Identifier: MIT
// TLS on a line that only writes: the check of both ends, tickets, signals and memory.
#include <fcntl.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <sys/ioctl.h>

#include "key_log_env.h"
#include "net_tcp/client.h"
#include "net_tcp_common.h"

namespace kvr::test {
namespace {

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

std::function<void()> g_action;

/// From now on SIGUSR2 runs this in a handler.
void handle(std::function<void()> action) {
    g_action = std::move(action);
    signal(SIGUSR2, [](int) {
        const int saved = errno;
        g_action();
        errno = saved;
    });
}

class TlsTest : public testing::TestWithParam<Carrier> {
  protected:
    PeerOptions options_{.carrier = GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Carriers, TlsTest, testing::Values(Carrier::kTls12, Carrier::kTls13), carrier_of);

/// What becomes of the line: it stands, the check of the peer fails, or the peer refuses it, which the client learns in
/// its connect or, with TLS 1.3, in its first write.
enum class End { kUp, kChecked, kRefused };

/// What each end has to show, and what becomes of the line before any data goes out.
TEST_P(TlsTest, EachEndIsJudgedByWhatItShows) {
    using enum End;
    const TlsMaterial& made = tls_material();
    const std::string untrusted = "SSL_get_verify_result error\n";
    const std::string expired = "certificate has expired, subject CN = Receiver.Test]";
    const std::string other_name = "X509_NAME_get_text_by_NID [] error\n";
    const std::tuple<TlsIdentity, TlsIdentity, End, std::string, std::string, int> cases[] = {
        {made.server, made.client, kUp, "", "", 0},
        {made.expired_server, made.client, kChecked, expired, untrusted, 0},
        {made.foreign_server, made.client, kChecked, "unable to get local issuer certificate", untrusted, 0},
        {made.server, made.client, kChecked, "common name differs", other_name, NET_TCP_SSL_CHECK_CN},
        {made.server, made.foreign_server, kRefused, "tlsv1 alert unknown ca]", "", 0},
    };
    for (const auto& [server, own, end, reason, on_stderr, options] : cases) {
        SCOPED_TRACE(reason);
        options_.identity = server;
        options_.ask_client_cert = true;
        std::string received;
        {
            Peer peer(options_, [&](PeerConnection& connection) { received = connection.read_all(); });
            Client client(GetParam());
            set_text(client.sCertFile, own.cert_file);
            set_text(client.sKeyFile, own.key_file);
            ASSERT_EQ(client.init(), 0);
            CaptureStderr();
            bool up = client.connect(peer.port(), "127.0.0.1", options) == 0;
            EXPECT_TRUE(up || (errno == EPROTO && client.is_down(true)));
            EXPECT_EQ(GetCapturedStderr(), on_stderr);
            if (end == kRefused) {
                up = up && !wait_until([&] { return client.write("") < 0; });
            }
            EXPECT_EQ(up, end == kUp);
            EXPECT_THAT(client.error(), HasSubstr(reason));
            EXPECT_EQ(client.error().starts_with("netTcpSSLCheckCert error["), end == kChecked) << client.error();
            EXPECT_EQ(client.iErrorCode, up ? 0 : -1);
            EXPECT_EQ(client.write("secret"), up ? 6 : -1);
        }
        EXPECT_EQ(received, end == kUp ? "secret" : "");
    }
}

TEST(TlsCheck, ComparesTheWholeCommonName) {
    const TlsMaterial& made = tls_material();
    const std::tuple<TlsIdentity, std::string, int> cases[] = {{made.server, "rECEIVER.tEST", 0},
                                                               {made.server, "Receiver.Tes", -2},
                                                               {made.nul_name_server, "Receiver.Test", -2}};
    for (const auto& [identity, name, result] : cases) {
        Peer peer({.carrier = Carrier::kTls13, .identity = identity}, &PeerConnection::read_all);
        Client client(Carrier::kTls13);
        ASSERT_TRUE(client.up(peer)) << client.error();
        CaptureStderr();
        EXPECT_EQ(netTcpSSLCheckCert(client.ssl, std::string(name).data(), NET_TCP_SSL_CHECK_CN), result) << name;
        EXPECT_EQ(GetCapturedStderr(), result == 0 ? "" : "X509_NAME_get_text_by_NID [" + name + "] error\n");
    }
}

TEST(TlsContext, IsMadeOfFilesThatFitTogether) {
    const TlsMaterial& made = tls_material();
    const TlsIdentity& locked = made.encrypted_client;
    const TlsIdentity mixed{made.client.cert_file, made.server.key_file};
    const TlsIdentity none{"/none.pem", made.client.key_file};
    const TlsIdentity endless{std::string(511, 'c'), std::string(511, 'k')};
    const std::string no_cert = "SSL_CTX_use_certificate_file[";
    const std::string no_key = "SSL_CTX_use_PrivateKey_file[";
    const std::tuple<std::string, TlsIdentity, std::string, std::string, std::string> cases[] = {
        {made.ca_file, locked, kKeyPass, "", ""},
        {made.ca_file, locked, "sesame", "", no_key + locked.key_file + "] error\n"},
        {made.ca_file, mixed, "", "key values mismatch]", no_key + mixed.key_file + "] error\n"},
        {made.ca_file, none, "", "No such file or directory]", no_cert + "/none.pem] error\n"},
        {"/none.pem", made.client, "", "No such file or directory]", "SSL_CTX_load_verify_locations error\n"},
        {made.ca_file, endless, std::string(511, 'p'), "", no_cert + endless.cert_file + "] error\n"}, // text is cut
    };
    for (const auto& [ca, own, phrase, reason, on_stderr] : cases) {
        Client client(Carrier::kTls13);
        set_text(client.sCaFile, ca);
        set_text(client.sCertFile, own.cert_file);
        set_text(client.sKeyFile, own.key_file);
        set_text(client.sKeyPass, phrase);
        CaptureStderr();
        const int result = client.init();
        EXPECT_EQ(GetCapturedStderr(), on_stderr);
        EXPECT_EQ(result, on_stderr.empty() ? 0 : -1);
        EXPECT_EQ(client.iErrorCode, result);
        const std::string text =
            "netTcpSSLInitCtx[" + own.cert_file + "] [" + own.key_file + "] [" + phrase + "] error[" + reason;
        EXPECT_THAT(client.error(),
                    testing::StartsWith(result == 0 ? "" : text.substr(0, sizeof(client.sErrorStr) - 1)));
        EXPECT_EQ(result == 0, client.error().empty());
    }
}

/// A null phrase asks nobody, and standard error that nobody reads, a full pipe, holds nothing up.
TEST(TlsContext, ThatFailsWaitsForNobody) {
    std::string ca = tls_material().ca_file;
    TlsIdentity locked = tls_material().encrypted_client;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string page(4096, '-');
    while (::write(ends[1], page.data(), page.size()) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], STDERR_FILENO);
    EXPECT_EQ(netTcpSSLInitCtx(ca.data(), locked.cert_file.data(), locked.key_file.data(), nullptr, 0), nullptr);
    dup2(STDOUT_FILENO, STDERR_FILENO);
}

/// Those that a close leaves unread.
TEST(TlsTickets, TakeNothingBackFromASlowReceiver) {
    const std::string data(40'000, 'd');
    std::string received;
    {
        std::atomic<bool> closed = false;
        std::atomic<bool> written = false;
        Peer peer({.carrier = Carrier::kTls13, .tickets = 0, .receive_buffer = 4096}, [&](PeerConnection& connection) {
            EXPECT_TRUE(wait_until([&] { return written.load(); }));
            connection.send_tickets(1);
            EXPECT_TRUE(wait_until([&] { return closed.load(); }));
            received = connection.read_all();
        });
        Client client(Carrier::kTls13);
        ASSERT_TRUE(client.up(peer)) << client.error();
        written = client.write(data) == static_cast<int>(data.size());
        ASSERT_TRUE(wait_until([&] {
            int unread = 0;
            return ioctl(client.iSocketNo, FIONREAD, &unread) == 0 && unread > 0;
        }));
        client.close();
        closed = true;
    }
    EXPECT_EQ(received.size(), data.size());
}

/// A handler that had to answer would need the heap.
TEST(TlsKeys, AChangeIsAnsweredWhereItIsSeen) {
    std::atomic<bool> answered = false;
    Peer peer({.carrier = Carrier::kTls13, .tickets = 0}, [&](PeerConnection& connection) {
        connection.read(1);
        answered = connection.update_keys();
        connection.read_all();
    });
    Client client(Carrier::kTls13);
    ASSERT_TRUE(client.up(peer)) << client.error();
    ASSERT_EQ(client.write("f"), 1);
    EXPECT_TRUE(wait_until([&] { return client.write("") == 0 && answered; }));
    client.close();
}

/// The host cannot stop a write in a handler: there a second interruption without progress ends it.
TEST_P(TlsTest, SignalsEndAStalledWriteInAHandler) {
    const std::string data(48'000'000, 'x');
    const pthread_t main_thread = pthread_self();
    std::atomic<bool> up = false;
    std::atomic<bool> ended = false;
    Client client(GetParam());
    Peer peer(options_, [&](PeerConnection&) {
        EXPECT_TRUE(wait_until([&] {
            pthread_kill(up ? main_thread : pthread_self(), SIGALRM);
            return ended.load();
        }));
    });
    signal(SIGALRM, [](int) {});
    up = client.up(peer);
    handle([&] { EXPECT_EQ(client.write(data), -1); });
    raise(SIGUSR2);
    ended = true;
    EXPECT_THAT(client.error(), testing::EndsWith("error[interrupted]"));
}

TEST(TlsHandshake, EndsCleanlyWhenAHandlerCloses) {
    const pthread_t main_thread = pthread_self();
    Client client(Carrier::kTls13);
    const int before = open_descriptors();
    {
        Peer peer({}, [&](PeerConnection& connection) {
            EXPECT_EQ(connection.read(1).size(), 1U); // of the client's hello
            pthread_kill(main_thread, SIGUSR2);
            connection.read_all();
        });
        handle([&] { client.close(); });
        EXPECT_FALSE(client.up(peer));
        EXPECT_EQ(client.iErrorCode, ECONNABORTED);
        EXPECT_THAT(client.error(), testing::EndsWith("error[103:Software caused connection abort]"));
        EXPECT_TRUE(client.is_down(false));
    }
    EXPECT_EQ(open_descriptors(), before);
}

/// Nothing is written unless the environment names a file, and then into a private one only.
TEST_P(TlsTest, KeysAreWrittenWhereTheEnvironmentSaysSo) {
    const TemporaryFolder folder;
    const std::string keys = folder.path() / "keys";
    const auto logged_with = [&](const std::string& file) {
        ::setenv(KVR_KEY_LOG_ENV, file.c_str(), 1);
        Peer peer(options_, [](PeerConnection& connection) { connection.read_all(); });
        Client client(GetParam());
        EXPECT_TRUE(client.up(peer));
        ::unsetenv(KVR_KEY_LOG_ENV);
        return testing::PrintToString(logged_lines);
    };
    EXPECT_THAT(logged_with(""), testing::Not(HasSubstr("keys")));
    EXPECT_THAT(logged_with(keys) + logged_with(keys), HasSubstr("1 Init TLS keys are written to [" + keys));
    EXPECT_EQ(std::filesystem::status(keys).permissions(), std::filesystem::perms(0600));
    const std::string written = contents(keys);
    const char* const label = GetParam() == Carrier::kTls12 ? "CLIENT_RANDOM " : "\nSERVER_TRAFFIC_SECRET_0 ";
    EXPECT_EQ(occurrences(written, label), 2U) << "two sessions, one after the other";
    std::filesystem::create_symlink(keys, keys + ".link");
    std::ofstream(keys + ".open") << "";
    for (const std::string& bad : {keys + ".link", keys + ".open", folder.path().native()}) {
        EXPECT_THAT(logged_with(bad), HasSubstr("1 Init key log [" + bad + "] error["));
    }
    EXPECT_EQ(contents(keys) + contents(keys + ".open"), written);
}

} // namespace
} // namespace kvr::test
