// SPDX-License-Identifier: MIT
// The channel inside TLS: the same bytes, session tickets that are no lost line, and lines that are lost all the same.
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>

#include "channel_run.h"
#include "expected_frames.h"
#include "support/tls_material.h"

namespace kvr::test {
namespace {

using testing::ElementsAre;

/// Gives a cue, waits until its bytes have arrived, and lets the heartbeat run.
GetStep beat_after(const char* cue) {
    return [cue](T_KAVRO_MD* md, char* buf, int* len) {
        int before = 0;
        ioctl(host().sock, FIONREAD, &before);
        trace(kNote, "%s", cue);
        for (int i = 0, now = before; now == before && i < 10000; ++i) {
            poll(nullptr, 0, 1);
            ioctl(host().sock, FIONREAD, &now);
        }
        return interrupted(SIGALRM)(md, buf, len);
    };
}

class Tls : public ChannelTest {
  protected:
    Tls() {
        chl()["SSLCAUTH"] = "ENABLE";
        qmgr() = {{"CAFILE", tls_material().ca_file},
                  {"CERTFILE", tls_material().encrypted_client.cert_file},
                  {"KEYFILE", tls_material().encrypted_client.key_file},
                  {"KEYPASS", kKeyPass},
                  {"DEADQ", "DLQ"}};
        receiver_.carrier = Carrier::kTls13;
        receiver_.ask_client_cert = true;
    }
};

// The process ends right after the last message: what the receiver sent and nobody read must not cost it that message.
TEST_F(Tls, SameBytesOnOneConnectionWhateverTicketsCome) {
    const std::string body(300000, 't');
    for (Carrier carrier : {Carrier::kTls12, Carrier::kTls13}) {
        receiver_.carrier = carrier;
        if (carrier == Carrier::kTls13) {
            cues_ = {{Cue::kTicket, "late ticket 1"}, {Cue::kTicket, "late ticket 2"}};
        }
        const auto ticket = [carrier](const char* cue) {
            return carrier == Carrier::kTls13 ? beat_after(cue) : interrupted(SIGALRM);
        };
        host().get = {interrupted(SIGALRM), deliver(message("one")), ticket("late ticket 1"),
                      deliver(message("")), ticket("late ticket 2"), deliver(message(body))};
        const Result r = run_channel();
        ASSERT_EQ(r.conns.size(), 1U) << r.dump();
        const std::string beat = heartbeat_frame();
        std::string expected = bind_frame();
        for (const std::string& frame : {beat, data_frame("one"), beat, data_frame(""), beat, data_frame(body)}) {
            expected += frame;
        }
        EXPECT_TRUE(r.conns[0] == expected) << r.conns[0].size() << " bytes\n" << r.dump();
        EXPECT_EQ(r.count("connection lost") + r.count("RCVER CLOSED"), 0);
    }
}

TEST_F(Tls, WatcherReportsTheEndOfTheLine) {
    for (Carrier carrier : {Carrier::kTls12, Carrier::kTls13}) {
        for (Cue::Act act : {Cue::kClose, Cue::kReset}) {
            receiver_.carrier = carrier;
            cues_ = {{act, "idle"}};
            host().get = {idle(), deliver(message("x"))};
            const Result r = run_channel();
            EXPECT_EQ(r.count("1 connection lost"), 1) << r.dump();
            EXPECT_EQ(r.count("3 line disconnected [0]"), 1);
            ASSERT_EQ(r.conns.size(), 2U);
            EXPECT_EQ(r.conns[1], bind_frame() + data_frame("x"));
        }
    }
}

TEST_F(Tls, ReceiverOfAnotherAuthorityIsRefused) {
    qmgr()["CAFILE"] = tls_material().other_ca_file;
    chl()["SHORTRTY"] = "2";
    const Result r = run_channel();
    EXPECT_EQ(r.count("1 connect [" + address() + "]  error[-1:netTcpSSLCheckCert error["), 3) << r.dump();
    EXPECT_TRUE(in_order(r, {"event 2 = -10002"}));
    EXPECT_THAT(r.conns, testing::Each(std::string())) << "nothing is said to a receiver that is not trusted";
}

// The connection is made with signals held, as in a handler: that must not hide why it failed.
TEST_F(Tls, ReasonOfAFailureIsShown) {
    qmgr()["KEYPASS"] = "wrong";
    Result r = run_channel();
    EXPECT_EQ(r.count("1 tcpclient init error[-1:"), 1) << r.dump();
    EXPECT_EQ(r.count("no reason given"), 0) << r.dump();

    qmgr()["KEYPASS"] = kKeyPass;
    receiver_.carrier = Carrier::kTls12;
    receiver_.anonymous = true; // nothing in common
    r = run_channel();
    EXPECT_EQ(r.count("1 connect [" + address() + "]  error[-1:SSL_connect[" + address() + "] error["), 1) << r.dump();
    EXPECT_EQ(r.count("handshake failure"), 2) << r.dump();
}

} // namespace
} // namespace kvr::test
