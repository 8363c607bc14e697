// SPDX-License-Identifier: MIT
// What can stand at the other end of a TLS line, and what the whole channel makes of it: its log lines, its end, and
// where the message is afterwards.
#include <cstdio>

#include "field.h"

namespace kvr::test {
namespace {

enum class Outcome {
    kDelivered,
    kRecovers, ///< the first line is lost, the second one carries the message
    kEnds,     ///< no line: the worker ends with 1, the message waits and the peer has not got a byte of data
    kNever,    ///< each line is lost again; what was written to one is gone, what met four is a dead letter
    kRefused,  ///< the refusal comes when the line is up already: it is seen at once, at the bind or after a message
};

struct Case {
    const char* name;
    Outcome outcome;
    std::vector<std::string> peer;
    std::vector<std::string> log; ///< texts in the worker's log or on its standard error
    Attributes qmgr = {};
    Attributes channel = {};
};

std::vector<std::string> server(const TlsIdentity& identity, const std::vector<std::string>& more = {}) {
    std::vector<std::string> all{"--tls", "--cert", identity.cert_file, "--key", identity.key_file};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

Attributes client(const std::string& cert, const std::string& key, const std::string& phrase = "") {
    return {{"CERTFILE", cert}, {"KEYFILE", key}, {"KEYPASS", phrase}};
}

class TlsField : public Field {
  public:
    TlsField() {
        const TlsMaterial& tls = tls_material();
        // A line that ends between two gets is noticed by the next heartbeat.
        set_channel({{"SSLCAUTH", "ENABLE"}, {"HBINT", "1"}});
        set_qmgr({{"CAFILE", tls.ca_file}, {"CERTFILE", tls.client.cert_file}, {"KEYFILE", tls.client.key_file}});
    }
};

void run(const Case& row) {
    TlsField field;
    field.set_qmgr(row.qmgr);
    field.set_channel(row.channel);
    if (row.outcome == Outcome::kEnds || row.outcome == Outcome::kRefused) {
        field.set_channel({{"SHORTRTY", "0"}});
    }
    Child listener = field.listen(row.peer);
    if (row.outcome != Outcome::kRecovers) {
        field.put(MessageKind::kData, 1, 1000, 1000);
    }
    Child worker = field.run_channel();
    switch (row.outcome) {
    case Outcome::kRecovers:
        field.await_log("connect [127.0.0.1:" + std::to_string(field.port()) + "] success", 2);
        field.put(MessageKind::kData, 1, 1000, 1000);
        [[fallthrough]];
    case Outcome::kDelivered:
        field.finish(worker);
        break;
    case Outcome::kEnds:
        EXPECT_EQ(worker.result(), 1);
        EXPECT_EQ(listener.result_under(SIGTERM), 0);
        EXPECT_EQ(field.depth(), 1U);
        EXPECT_EQ(field.journalled("bind"), 0U);
        EXPECT_EQ(field.journalled("message"), 0U);
        EXPECT_EQ(field.judge().waiting, 1U);
        break;
    case Outcome::kRefused: // sooner or later it is seen while the line starts, which ends the worker
        EXPECT_EQ(worker.result(), 1);
        EXPECT_EQ(listener.result_under(SIGTERM), 0);
        EXPECT_GT(field.logged("tlsv1 alert unknown ca") + field.logged("BindChl error["), 0U);
        EXPECT_EQ(field.journalled("bind"), 0U);
        EXPECT_EQ(field.judge(1).delivered, 0U);
        break;
    case Outcome::kNever:
        field.await_log("line disconnected [0]", 2);
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
        EXPECT_EQ(field.judge(1).delivered, 0U);
        break;
    }
    const std::string told = field.log() + contents(field.home() / "out");
    for (const std::string& text : row.log) {
        EXPECT_NE(told.find(text), std::string::npos) << text;
    }
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "%s\n", field.log().c_str());
    }
}

std::vector<Case> cases() {
    const TlsMaterial& tls = tls_material();
    const std::string checked = "netTcpSSLCheckCert success.";
    const std::string init = "tcpclient init error[-1:netTcpSSLInitCtx[";
    const auto refused = [](const std::string& reason) {
        return std::vector<std::string>{"netTcpSSLCheckCert error[" + reason +
                                            ", subject O = kavro test, CN = Receiver.Test]",
                                        "error[-1:netTcpSSLCheckCert error["};
    };
    const auto& own = tls.client;
    using enum Outcome;
    return {
        {"Tls12Only", kDelivered, server(tls.server, {"--tls-max", "1.2"}), {checked}},
        {"Tickets", kDelivered, server(tls.server, {"--tls-min", "1.3", "--tls-tickets", "2"}), {checked}},
        {"NoTickets", kDelivered, server(tls.server, {"--tls-min", "1.3", "--tls-tickets", "0"}), {checked}},
        {"ClientRequired12",
         kDelivered,
         server(tls.server, {"--ca", tls.ca_file, "--client-cert", "required", "--tls-max", "1.2"}),
         {}},
        {"ClientRequired13", kDelivered, server(tls.server, {"--ca", tls.ca_file, "--client-cert", "required"}), {}},
        {"ClientWrong12",
         kEnds,
         server(tls.server, {"--ca", tls.ca_file, "--client-cert", "required", "--tls-max", "1.2"}),
         {"SSL_connect[", "unknown ca"},
         client(tls.foreign_server.cert_file, tls.foreign_server.key_file)},
        {"ClientWrong13",
         kRefused,
         server(tls.server, {"--ca", tls.ca_file, "--client-cert", "required"}),
         {checked, "SndrNetInit error[-1]", "is refused: unable to get local issuer certificate"},
         client(tls.foreign_server.cert_file, tls.foreign_server.key_file)},
        {"ClientAbsent",
         kEnds,
         server(tls.server, {"--ca", tls.ca_file, "--client-cert", "required"}),
         {"has no CERTFILE: set it"},
         client("", "")},
        {"Untrusted", kEnds, server(tls.foreign_server), refused("unable to get local issuer certificate")},
        {"Expired", kEnds, server(tls.expired_server), refused("certificate has expired")},
        {"NotYetValid", kEnds, server(tls.future_server), refused("certificate is not yet valid")},
        {"SelfSigned", kEnds, server(tls.self_signed_server), refused("self-signed certificate")},
        {"RightPhrase",
         kDelivered,
         server(tls.server),
         {checked, "keypass[***"},
         client(tls.encrypted_client.cert_file, tls.encrypted_client.key_file, kKeyPass)},
        {"WrongPhrase",
         kEnds,
         server(tls.server),
         {init},
         client(tls.encrypted_client.cert_file, tls.encrypted_client.key_file, "wrong")},
        {"NoPhrase",
         kEnds,
         server(tls.server),
         {init},
         client(tls.encrypted_client.cert_file, tls.encrypted_client.key_file)},
        {"KeyOfAnother",
         kEnds,
         server(tls.server),
         {init, "key values mismatch"},
         client(own.cert_file, tls.server.key_file)},
        {"PlainPeer", kEnds, {}, {"SSL_connect[", "a TLS hello, but this listener speaks plain TCP"}},
        {"TlsPeerOfAPlainChannel",
         kNever,
         server(tls.server),
         {"binding channel[", "the sender speaks plain TCP"},
         {},
         {{"SSLCAUTH", "DISABLE"}}},
        {"SilentHandshake", kEnds, server(tls.server, {"--no-handshake"}), {"SSL_connect[", "error[timed out]"}},
        {"Alert",
         kRecovers,
         server(tls.server, {"--close-after", "82", "--close-notify", "--awkward-first", "1"}),
         {"line disconnected [0]"}},
        {"Data", kRecovers, server(tls.server, {"--send", "20000", "--awkward-first", "1"}), {"line disconnected [0]"}},
        {"Truncation",
         kRecovers,
         server(tls.server, {"--close-after", "82", "--awkward-first", "1"}),
         {"line disconnected [0]"}},
    };
}

class TlsTable : public ::testing::TestWithParam<Case> {};

TEST_P(TlsTable, Row) {
    run(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Peers, TlsTable, ::testing::ValuesIn(cases()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(TlsLine, WithTicketsStaysOneOverIdleTimeAndAThousandMessages) {
    TlsField field;
    const Child listener = field.listen(
        server(tls_material().server, {"--tls-min", "1.3", "--tls-tickets", "2", "--tls-late-ticket", "500"}));
    Child worker = field.run_channel();
    const std::size_t beats = std::min<std::size_t>(rounds(1), 30);
    field.await_log("heartbeat channel[", beats);
    field.put(MessageKind::kData, 1000, 0, 2000);
    field.await_arrived(1000);
    EXPECT_EQ(field.journalled("connect"), 1U);
    field.finish(worker);
    RecordProperty("idle heartbeats", std::to_string(beats));
}

TEST(TlsLine, EndingRightAfterTheLastSendToASlowReaderLosesNothing) {
    constexpr std::size_t kCount = 20;
    TlsField field;
    field.set_channel({{"SHORTTMR", "30"}});
    const Child listener =
        field.listen(server(tls_material().server, {"--tls-min", "1.3", "--tls-tickets", "2", "--tls-late-ticket",
                                                    "100", "--receive-buffer", "4096", "--read-rate", "500000"}));
    Child worker = field.run_channel();
    field.await_status("RUNING");
    field.put(MessageKind::kData, kCount, 50000, 50000);
    await("the last send", [&] { return field.logged("send 50000 real size") >= kCount; });
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    field.await_arrived(kCount);
    EXPECT_EQ(field.journalled("connect"), 1U);
    field.expect_all_delivered();
}

} // namespace
} // namespace kvr::test
