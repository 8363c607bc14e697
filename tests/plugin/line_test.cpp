// SPDX-License-Identifier: MIT
// The life of a line: heartbeats, its loss, the watcher, signals wherever the channel happens to be, the stop (event 4,
// raised from inside the get as a host does), and the same inside TLS.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "channel_run.h"

namespace kvr::test {
namespace {

const std::string kBind = bind_frame("CH1");
const std::string kStart = "5 --------------------start recv msg----------------------";
const std::string kBegin = "4 -----------------------begin check line-------------------------";
const std::string kLost = "4 ----------------------line disconnected------------------------ ";

using Heartbeat = ChannelTest;

TEST_F(Heartbeat, WritesOneFrameAndGoesBackToWaiting) {
    host().hooks["sockCanRead"] = failing(-1, 2, 2); // a look that fails holds no heartbeat back
    host().get = {interrupted(SIGALRM), interrupted(SIGALRM), deliver(message("x"))};
    const Result r = run_channel();
    EXPECT_THAT(r.conns, ElementsAre(kBind + heartbeat_frame() + heartbeat_frame() + data_frame("x")));
    EXPECT_TRUE(in_order(r,
                         {kStart +
                          " | alarm(5) | KVR_QueMsgGet() | sockCanRead() | write(75) | "
                          "4 heartbeat channel[CH1] [127.0.0.1:PORT] | alarm(0) | " +
                          kStart},
                         "LHS"));
}

TEST_F(Heartbeat, LineThatCannotTakeItIsGivenUp) {
    const struct {
        const char* op;
        Hook hook;
        std::string told;
    } cases[] = {
        {"sockCanRead", failing(1, 1, 1), "3 RCVER CLOSED"},
        // Text and code of the client as they were before the close cleared them.
        {"write", failing_of(75, 1, 10, EPIPE),
         "write(75) | 1 write [75] to receiver error[32:write[75] ret[10] error[32:Broken pipe]] return[-1]"},
    };
    for (const auto& c : cases) {
        host().hooks = {{c.op, c.hook}};
        host().get = {interrupted(SIGALRM), deliver(message("x"))};
        const Result r = run_channel();
        EXPECT_TRUE(in_order(r, {"KVR_QueMsgGet() | sockCanRead() | " + c.told + " | alarm(0) | sleep(3)"}, "LHS"));
        EXPECT_THAT(r.conns, ElementsAre(kBind, kBind + data_frame("x")));
    }
}

TEST_F(Heartbeat, DownLineGetsNothingAndIsRestarted) {
    host().hooks["write"] = failing_of(1, 4, 0, EPIPE);
    host().get = {deliver(message("x")), interrupted(SIGALRM), deliver(message("yy"))};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"KVR_QueMsgPut(73)", kStart, "KVR_QueMsgGet()", "alarm(0)", "sleep(3)",
                             "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)", "KVR_QueMsgGet()"}));
    EXPECT_EQ(r.conns.back(), kBind + data_frame("yy"));
    EXPECT_EQ(r.count("write(75)"), 5) << "five headers and no heartbeat";
}

using LineLoss = ChannelTest;

// The close in a handler wakes the line's watcher, which reports it: that must not end the pause.
TEST_F(LineLoss, InTheWaitPausesAndRestarts) {
    for (const int sig : {SIGUSR2, SIGALRM}) {
        if (sig == SIGALRM) {
            host().hooks["sockCanRead"] = failing(1, 1, 1);
        }
        host().hooks["sleep"] = [](const Call&) -> std::optional<int> {
            wait_for("1 connection lost");
            trace(kNote, held(SIGUSR2) && held(SIGCHLD) ? "pause over" : "pause cut short");
            return 0;
        };
        host().get = {interrupted(sig), deliver(message("x"))};
        const Result r = run_channel();
        EXPECT_TRUE(
            in_order(r, {kStart, "alarm(5)", "KVR_QueMsgGet()",
                         sig == SIGUSR2 ? "3 line disconnected [0]" : "3 RCVER CLOSED", "alarm(0)", "sleep(3)",
                         "pause over", "3 line disconnected [0]", "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)", kStart}));
        EXPECT_THAT(r.conns, ElementsAre(kBind, kBind + data_frame("x")));
    }
}

// The handler's close clears the client's code and text.
TEST_F(LineLoss, BehindAFailedWriteLeavesItsReason) {
    host().hooks = {{"write", failing_of(5, 1, 2, ECONNRESET)}, {"failure", raising(SIGUSR2)}};
    const std::string reason = "error[104:write[5] ret[2] error[" + err(ECONNRESET) + "]]";
    EXPECT_EQ(run_messages({message("hello")}).count("1 write [5] to receiver " + reason + " return[-1]"), 1);
}

using Watcher = ChannelTest;

TEST_F(Watcher, ReportsALostLineOnce) {
    const struct {
        Carrier carrier;
        std::function<void(PeerConnection&)> act;
    } cases[] = {{Carrier::kPlain, &PeerConnection::close},
                 {Carrier::kPlain, &PeerConnection::reset},
                 {Carrier::kPlain, [](PeerConnection& connection) { connection.write("bytes"); }},
                 {Carrier::kTls12, &PeerConnection::close},
                 {Carrier::kTls13, &PeerConnection::reset}};
    for (const auto& c : cases) {
        if (c.carrier != Carrier::kPlain) {
            use_tls(c.carrier);
        }
        cues_ = {{"idle", c.act}};
        host().get = {idle(), deliver(message("x"))};
        const Result r = run_channel();
        ASSERT_EQ(r.watchers.size(), 2U) << r.dump();
        EXPECT_THAT(r.lines("LHS", r.watchers[0]),
                    ElementsAre(kBegin, "select()", "1 connection lost", kLost, "procSndSig2Proc(PID 12)"));
        EXPECT_EQ(r.count("3 line disconnected [0]"), 1);
        EXPECT_EQ(r.count("Waitpid error"), 0);
        EXPECT_TRUE(in_order(r, {"3 line disconnected [0]", "alarm(0)", "sleep(3)", "5 waitpid W1 end", "fork()"}));
        EXPECT_EQ(r.conns.back(), kBind + data_frame("x"));
    }
}

TEST_F(Watcher, SignalsNobodyWhenChannelAndLineEndTogether) {
    cues_ = {{"stopped", &PeerConnection::close}};
    host().get = {finally([] {
        wait_for("select()");
        kill(host().watcher, SIGSTOP); // resumed when the channel has ended
        siginfo_t stopped{};
        waitid(P_PID, static_cast<id_t>(host().watcher), &stopped, WSTOPPED | WNOWAIT);
        trace(kNote, "stopped");
        pollfd line{host().sock, POLLIN, 0};
        trace(kNote, "line closed: %d", poll(&line, 1, 10000));
    })};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"stopped", "line closed: 1"}));
    EXPECT_THAT(r.lines("LHS", r.watchers.at(0)), ElementsAre(kBegin, "select()", "2 parent abort[PID]"));
}

TEST_F(Watcher, FailedSelectIsToldAndTheChannelRunsOn) {
    host().hooks["select"] = failing(-1, 1, 9, EBADF);
    const Result r = run_messages({message("x")});
    EXPECT_THAT(r.conns, ElementsAre(kBind + data_frame("x")));
    EXPECT_THAT(r.lines("LHS", r.watchers.at(0)),
                ElementsAre(kBegin, "select()", "1 select error[" + err(EBADF) + "]"));
}

// A restart and a stop do the same about the line watcher; a look that fails counts as a closed line.
TEST_F(Watcher, IsKilledAndReapedAtARestartAndAtAStop) {
    host().hooks = {{"sockCanRead", failing(-3, 1, 1)}, {"waitpid", failing(-1, 1, 1, EINTR)}};
    host().get = {deliver(message("one")), finally([] { event(4); })};
    const Result r = run_channel();
    const std::string killed = "procIsExist(W1) | procSndSig2Proc(W1 9) | 5 waitpid W1 begin | waitpid() | ";
    EXPECT_TRUE(in_order(
        r,
        {"sockCanRead() | 1 sockCanRead [-3] | 3 RCVER CLOSED | " + killed +
             "4 Waitpid error[4:Interrupted system call] | waitpid() | 5 waitpid W1 end | KVR_ObjGetAttr(CHL CH1 "
             "LONGRTY LONGTMR SHORTRTY SHORTTMR CONNAME)",
         "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED) | " + std::regex_replace(killed, std::regex("W1"), "W2") +
             "5 waitpid W2 end | KVR_QueClose(XQ XQ) | event 4 = 0"},
        "LHSE"));
    EXPECT_EQ(r.count("LOCALPORT=PORT2 "), 1);
}

// The connection is made with signals held, as in a handler: that must not hide why it failed.
TEST_F(Watcher, IsNotNeededWhereTlsFailsAndTheReasonIsShown) {
    use_tls(Carrier::kTls12);
    receiver_.anonymous = true; // nothing in common
    const Result r = run_channel();
    EXPECT_THAT(r.lines("L"),
                testing::Contains(StartsWith("1 connect [127.0.0.1:PORT]  error[-1:SSL_connect[127.0.0.1")));
    EXPECT_EQ(r.count("handshake failure"), 2) << r.dump();
    EXPECT_EQ(r.count("1 Connect2Lsr error[" + err(EPROTO) + "]"), 1) << r.dump();
    EXPECT_THAT(r.conns, testing::Each(std::string())) << "nothing is said to a receiver that is not trusted";
}

} // namespace
} // namespace kvr::test
