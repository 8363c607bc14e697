// SPDX-License-Identifier: MIT
// The listener over real sockets: what reaches the store, what a cut line leaves, how it treats odd peers, and how it
// misbehaves when asked to.
#include <gtest/gtest.h>

#include <cerrno>

#include <fmt/format.h>

#include "receiver_line.h"
#include "receiver_stream.h"
#include "store.h"

namespace kvr::test {
namespace {

class ListenerTest : public testing::TestWithParam<Carrier> {
  protected:
    /// A listener that keeps nothing.
    static ListenerOptions discarding(Carrier carrier = Carrier::kPlain) {
        ListenerOptions options;
        options.tls = server_tls(carrier);
        return options;
    }
    /// A listener with a store that has the queues Q1 to Q3 and, if wanted, the dead-letter queue DLQ.
    ListenerOptions storing(Carrier carrier, bool dead_letter_queue = true) {
        Store::create(folder_.path() / "WEST", "WEST", {});
        ListenerOptions options = discarding(carrier);
        options.store = Store::open(folder_.path() / "WEST");
        options.spool = folder_.path() / "spool";
        for (const char* const queue : {"Q1", "Q2", "Q3", "DLQ"}) {
            options.store->queue_define(queue, "");
        }
        options.store->object_add("QMGR", "QMGR", {{"DEADQ", dead_letter_queue ? "DLQ" : ""}});
        store_ = options.store;
        return options;
    }
    struct Found {
        T_KAVRO_MD descriptor;
        std::string data;
        std::vector<std::string> attachments;
    };
    std::vector<Found> on_queue(const std::string& queue) {
        std::vector<Found> found;
        store_->browse(queue, 0, [&found](const StoredMessage& message) {
            found.push_back({message.descriptor, {message.data.begin(), message.data.end()}, message.attachments});
            return true;
        });
        return found;
    }

    TemporaryFolder folder_;
    std::shared_ptr<Store> store_;
};

class EachCarrier : public ListenerTest {};
INSTANTIATE_TEST_SUITE_P(Carriers, EachCarrier, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& param) { return std::string(carrier_name(param.param)); });

TEST_P(EachCarrier, MessagesReachTheirQueuesWholeAndInOrder) {
    RunningListener listener(storing(GetParam()));
    const std::string big(2098304, 'b');
    const std::string large_file(300000, 'f');
    SendingClient client(listener.port(), GetParam());
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send(bind_frame("EAST.WEST")));
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(client.send(message("Q1", fmt::format("number {}", i))));
    }
    ASSERT_TRUE(client.send(heartbeat_frame() + message("Q1", "") + message("Q1", big) +
                            message_with_files("Q2", "two files", {{"a.txt", "first"}, {"../b\n", large_file}}) +
                            file_message("Q3", {"x.dat", "contents of x"}, 19) + message("NO.SUCH.QUEUE", "stray")));
    ASSERT_TRUE(listener.wait_for("message", 305));
    client.finish();
    ASSERT_TRUE(listener.wait_for("end", 1));
    EXPECT_EQ(listener.stop(), 0);

    const auto q1 = on_queue("Q1");
    ASSERT_EQ(q1.size(), 302U);
    for (std::size_t i = 0; i < 300; ++i) {
        ASSERT_EQ(q1[i].data, fmt::format("number {}", i));
    }
    EXPECT_EQ(q1[300].data, "");
    EXPECT_TRUE(q1[301].data == big);
    const T_KAVRO_MD& md = q1[0].descriptor;
    EXPECT_EQ(std::string(md.sMsgId, 32), padded("ID", 32));
    EXPECT_EQ(md.iMsgType, 7);
    EXPECT_EQ(md.iMsgCode, -5);
    EXPECT_EQ(md.iExpiry, -1);
    EXPECT_EQ(md.iPutApplType, 28);
    EXPECT_STREQ(md.sPutTime, "030405");

    const auto q2 = on_queue("Q2");
    ASSERT_EQ(q2.size(), 1U);
    EXPECT_EQ(q2[0].data, "two files");
    ASSERT_EQ(q2[0].attachments.size(), 2U);
    EXPECT_EQ(q2[0].attachments[1], (folder_.path() / "spool/..%2Fb%0A").native());
    EXPECT_EQ(contents(q2[0].attachments[0]), "first");
    EXPECT_TRUE(contents(q2[0].attachments[1]) == large_file);

    const auto q3 = on_queue("Q3");
    ASSERT_EQ(q3.size(), 1U);
    EXPECT_EQ(q3[0].descriptor.cMsgStoreType, KVR_STORE_FILE);
    EXPECT_EQ(q3[0].data, (folder_.path() / "spool/x.dat").native());
    EXPECT_EQ(contents(q3[0].data), "contents of x");

    const auto dead = on_queue("DLQ");
    ASSERT_EQ(dead.size(), 1U);
    EXPECT_EQ(dead[0].data,
              "XTMH" + std::string("\1\0\0\0", 4) + padded("NO.SUCH.QUEUE", 32) + padded("WEST", 32) + "stray");
}

TEST_F(ListenerTest, AMessageWithoutAHomeEndsItsLineAndNothingAfterItIsTaken) {
    RunningListener listener(storing(Carrier::kPlain, false));
    SendingClient client(listener.port(), Carrier::kPlain);
    ASSERT_TRUE(client.send(bind_frame("C") + message("Q1", "before") +
                            message_with_files("NOWHERE", "", {{"a", "x"}}) + message("Q1", "after")));
    ASSERT_TRUE(listener.wait_for("end", 1));
    EXPECT_NE(listener.journal("end")[0]["reason"].get<std::string>().find("NOWHERE"), std::string::npos);
    EXPECT_EQ(listener.stop(), 0);
    ASSERT_EQ(on_queue("Q1").size(), 1U);
    EXPECT_EQ(on_queue("Q1")[0].data, "before");
    EXPECT_EQ(names_in(folder_.path() / "spool"), std::set<std::string>{".incoming"});
}

TEST_P(EachCarrier, AStopTakesInWhatHasBeenSent) {
    RunningListener listener(storing(GetParam()));
    SendingClient client(listener.port(), GetParam());
    ASSERT_TRUE(client.send(bind_frame("C")));
    ASSERT_TRUE(listener.wait_for("bind", 1));
    std::string stream;
    for (int i = 0; i < 500; ++i) {
        stream += message("Q1", std::string(100, 'm'));
    }
    ASSERT_TRUE(client.send(stream));
    std::thread sender([&client] { // ends its half when it sees ours ended, as a channel does
        int error = 0;
        EXPECT_EQ(client.read_to_end(error), "");
        EXPECT_EQ(error, 0);
        client.finish();
    });
    EXPECT_EQ(listener.stop(), 0);
    sender.join();
    EXPECT_EQ(on_queue("Q1").size(), 500U);
}

TEST_F(ListenerTest, PeersThatAreNoSendersAreSentAway) {
    const std::string http =
        "GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\nUser-Agent: nobody\r\nX: yyyyyyyy\r\n\r\n";
    RunningListener listener(discarding());
    std::size_t ended = 0;
    for (const std::string& bytes : {http, std::string("\x16\x03\x01\x00\xff", 5) + nuls(80)}) { // TLS on a plain port
        SendingClient client(listener.port(), Carrier::kPlain);
        ASSERT_TRUE(client.send(bytes));
        int error = 0;
        EXPECT_EQ(client.read_to_end(error), "");
        ASSERT_TRUE(listener.wait_for("end", ++ended));
        const auto reason = listener.journal("end").back()["reason"].get<std::string>();
        EXPECT_NE(reason.find("malformed stream at byte 0"), std::string::npos) << reason;
    }
}

TEST_F(ListenerTest, ASilentPeerIsClosedAfterItsTime) {
    ListenerOptions options = discarding();
    options.handshake_seconds = 1;
    RunningListener listener(options);
    SendingClient silent(listener.port(), Carrier::kPlain);
    SendingClient bound(listener.port(), Carrier::kPlain);
    ASSERT_TRUE(bound.send(bind_frame("C")));
    int error = 0;
    EXPECT_EQ(silent.read_to_end(error), "");
    EXPECT_TRUE(bound.send(message("Q", "still here")));
    EXPECT_TRUE(listener.wait_for("message", 1));
}

TEST_F(ListenerTest, FurtherConnectionsWaitForAPlace) {
    ListenerOptions options = discarding();
    options.max_connections = 2;
    RunningListener listener(options);
    auto first = std::make_unique<SendingClient>(listener.port(), Carrier::kPlain);
    SendingClient second(listener.port(), Carrier::kPlain);
    SendingClient third(listener.port(), Carrier::kPlain);
    ASSERT_TRUE(first->send(bind_frame("A")) && second.send(bind_frame("B")) && third.send(bind_frame("C")));
    ASSERT_TRUE(listener.wait_for("bind", 2));
    EXPECT_EQ(listener.journal("connect").size(), 2U);
    first.reset();
    ASSERT_TRUE(listener.wait_for("bind", 3));
    EXPECT_EQ(listener.journal("bind")[2]["channel"], "C");
}

TEST_F(ListenerTest, ClientCertificates) {
    const TlsMaterial& material = tls_material();
    const struct {
        const char* name;
        ClientCert mode;
        const TlsIdentity* identity;
        bool bound;
    } cases[] = {
        {"optional, none given", ClientCert::kOptional, nullptr, true},
        {"required, given", ClientCert::kRequired, &material.client, true},
        {"required, none given", ClientCert::kRequired, nullptr, false},
        {"required, of another CA", ClientCert::kRequired, &material.foreign_server, false},
        {"optional, of another CA", ClientCert::kOptional, &material.foreign_server, false},
    };
    for (const Carrier carrier : {Carrier::kTls12, Carrier::kTls13}) {
        for (const auto& [name, mode, identity, bound] : cases) {
            SCOPED_TRACE(fmt::format("{} {}", carrier_name(carrier), name));
            ListenerOptions options = discarding(carrier);
            options.tls.client_cert = mode;
            RunningListener listener(options);
            SendingClient client(listener.port(), carrier, identity);
            (void)client.send(bind_frame("C")); // with TLS 1.3 the client learns of the refusal after its handshake
            ASSERT_TRUE(listener.wait_for(bound ? "bind" : "end", 1));
            EXPECT_EQ(listener.journal("bind").size(), bound ? 1U : 0U);
        }
    }
}

TEST_F(ListenerTest, StartRefusals) {
    const TlsOptions good = server_tls(Carrier::kTls13);
    TlsOptions other_key = good;
    other_key.key = tls_material().client.key_file;
    TlsOptions no_cert = good;
    no_cert.cert = "/nonexistent";
    TlsOptions no_ca = good;
    no_ca.ca.clear();
    no_ca.client_cert = ClientCert::kRequired;
    const struct {
        const char* address;
        TlsOptions tls;
        const char* reason;
    } cases[] = {{"127.0.0.1", {}, "it started"},
                 {"nobody.invalid", {}, "not an address"},
                 {"192.0.2.1", {}, "cannot listen"},
                 {"127.0.0.1", good, "it started"},
                 {"127.0.0.1", other_key, "cannot use the key"},
                 {"127.0.0.1", no_cert, "cannot use the certificate"},
                 {"127.0.0.1", no_ca, "needs a CA file"}};
    for (const auto& [address, tls, reason] : cases) {
        ListenerOptions options;
        options.address = address;
        options.port = 0;
        options.tls = tls;
        options.on_listening = [](int) { throw std::runtime_error("it started"); };
        try {
            (void)run_listener(options);
            ADD_FAILURE() << reason;
        } catch (const std::exception& error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
        }
    }
}

TEST_F(ListenerTest, AKeyWithAPassPhrase) {
    const TlsIdentity& identity = tls_material().encrypted_client;
    ListenerOptions options = discarding(Carrier::kTls13);
    options.tls.cert = identity.cert_file;
    options.tls.key = identity.key_file;
    options.tls.key_pass_file = folder_.path() / "phrase";
    std::ofstream(options.tls.key_pass_file) << kKeyPass << "\nsecond line\n";
    RunningListener listener(options);
    SendingClient client(listener.port(), Carrier::kTls13);
    EXPECT_TRUE(client.connected());
}

TEST_P(EachCarrier, OdditiesThatAreAskedFor) {
    const std::string sent = bind_frame("C") + message("Q", std::string(500, 's'));
    const struct {
        const char* name;
        void (*set)(ListenerOptions&);
        std::size_t messages; ///< that arrive
        const char* said;     ///< by the listener
    } cases[] = {
        {"speaks", [](ListenerOptions& options) { options.awkward.send = 7; }, 1, "xxxxxxx"},
        {"refuses", [](ListenerOptions& options) { options.awkward.refuse = true; }, 0, ""},
        {"stalls",
         [](ListenerOptions& options) {
             options.awkward.stall_after = 76;
             options.awkward.receive_buffer = 4096;
         },
         0, ""},
        {"reads slowly and sends late tickets",
         [](ListenerOptions& options) {
             options.awkward.read_rate = 2000;
             options.tls.tickets = 2;
             options.tls.late_ticket_ms = 1;
         },
         1, ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        ListenerOptions options = discarding(GetParam());
        row.set(options);
        options.once = 1;
        RunningListener listener(options);
        SendingClient client(listener.port(), GetParam());
        (void)client.send(sent);
        EXPECT_TRUE(options.awkward.refuse || listener.wait_for("bind", 1));
        EXPECT_TRUE(listener.wait_for("message", row.messages));
        client.finish();
        int error = 0;
        EXPECT_EQ(client.read_to_end(error), row.said);
        EXPECT_EQ(listener.wait(), 0);
        EXPECT_EQ(listener.journal("message").size(), row.messages);
    }
}

} // namespace
} // namespace kvr::test
