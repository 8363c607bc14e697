// SPDX-License-Identifier: MIT
// What the heartbeat, the line-loss handler and the line watcher do, wherever the channel happens to be.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

const std::string kStart = "5 --------------------start recv msg----------------------";
const std::string kBegin = "4 -----------------------begin check line-------------------------";
const std::string kLost = "4 ----------------------line disconnected------------------------ ";

using Lines = std::vector<std::string>;

class Heartbeat : public ChannelTest {};

TEST_F(Heartbeat, WritesOneFrameAndGoesBackToWaiting) {
    host().hooks["sockCanRead"] = failing(-1, 2, 2); // a look that fails holds no heartbeat back
    host().get = {interrupted(SIGALRM), interrupted(SIGALRM), deliver(message("x"))};
    const Result r = run_channel();
    EXPECT_THAT(r.conns, ElementsAre(bind_frame() + heartbeat_frame() + heartbeat_frame() + data_frame("x")));
    const Lines lines = r.lines_between("LHS", kStart, kStart);
    ASSERT_GE(lines.size(), 8U) << r.dump();
    EXPECT_THAT(lines[5], testing::AllOf(StartsWith("4 "), testing::HasSubstr("CH1"), testing::HasSubstr("127.0.0.1"),
                                         testing::HasSubstr(std::to_string(port_))));
    Lines expected = {kStart,     "alarm(5)", "KVR_QueMsgGet(blank)", "sockCanRead()", "write(75)", lines[5],
                      "alarm(0)", kStart};
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 8), expected);
}

TEST_F(Heartbeat, LineThatCannotTakeItIsGivenUp) {
    const struct {
        const char *name, *op;
        Hook hook;
        Lines in_get;
    } cases[] = {
        {"ReceiverClosed", "sockCanRead", failing(1, 1, 1), {"sockCanRead()", "3 RCVER CLOSED"}},
        {"LookFailsAndWriteToo",
         "write",
         failing_write(75, 1, 10, EPIPE),
         // the text and the code of the client as they were before the close cleared them
         {"sockCanRead()", "write(75)",
          "1 write [75] to receiver error[32:write[75] ret[10] error[" + err(EPIPE) + "]] return[-1]"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host().hooks = {{c.op, c.hook}};
        host().get = {interrupted(SIGALRM), deliver(message("x"))};
        const Result r = run_channel();
        Lines expected = {kStart, "alarm(5)", "KVR_QueMsgGet(blank)"};
        expected.insert(expected.end(), c.in_get.begin(), c.in_get.end());
        expected.insert(expected.end(), {"alarm(0)", "sleep(3)"});
        EXPECT_EQ(r.lines_between("LHS", kStart, "sleep(3)"), expected);
        EXPECT_THAT(r.conns, ElementsAre(bind_frame(), bind_frame() + data_frame("x")));
    }
}

// The close in the handler wakes the line's watcher, which reports it.
TEST_F(Heartbeat, ReportOfItsOwnCloseDoesNotEndThePause) {
    host().hooks["sockCanRead"] = failing(1, 1, 1);
    host().hooks["sleep"] = [](const Call&) -> std::optional<int> {
        wait_for("1 connection lost");
        raise(SIGUSR2);
        trace(kNote, "pause over");
        return 0;
    };
    host().get = {interrupted(SIGALRM)};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(
        r, {"3 RCVER CLOSED", "pause over", "3 line disconnected [0]", "4 connect [" + address() + "] success"}))
        << r.dump();
}

TEST_F(Heartbeat, DownLineGetsNothingAndIsRestarted) {
    host().hooks["write"] = failing_write(1, 4, 0, EPIPE);
    host().get = {deliver(message("x")), interrupted(SIGALRM), deliver(message("yy"))};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"KVR_QueMsgPut(73 as received)", kStart, "KVR_QueMsgGet(blank)", "alarm(0)", "sleep(3)",
                             "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)", "KVR_QueMsgGet(blank)"}));
    ASSERT_EQ(r.conns.size(), 5U) << r.dump();
    EXPECT_EQ(r.conns[4], bind_frame() + data_frame("yy"));
    EXPECT_EQ(r.count("write(75)"), 5) << "five headers and no heartbeat";
}

// An alarm that fires anywhere but in the wait may not put bytes between those of a message.
TEST_F(Heartbeat, StrayAlarmOutsideTheWaitWritesNothing) {
    for (const char* op : {"write", "sockCanRead", "KVR_ObjSetAttr"}) {
        SCOPED_TRACE(op);
        host().hooks = {{op, raising(SIGALRM)}};
        const Result r = run_messages({message("one"), message("two")});
        EXPECT_THAT(r.conns, ElementsAre(bind_frame() + data_frame("one") + data_frame("two"))) << r.dump();
        EXPECT_EQ(r.status, kScriptOver);
    }
}

TEST_F(Heartbeat, NoIntervalArmsNoAlarm) {
    for (const char* interval : {"0", "", "-5"}) {
        chl()["HBINT"] = interval;
        for (const std::string& line : run_messages({message("x")}).lines("S")) {
            EXPECT_TRUE(line.rfind("alarm", 0) != 0 || line == "alarm(0)") << line;
        }
    }
}

class LineLoss : public ChannelTest {};

TEST_F(LineLoss, InTheWaitPausesAndRestarts) {
    host().get = {interrupted(SIGUSR2), deliver(message("x"))};
    const Result r = run_channel();
    EXPECT_EQ(r.lines_between("LHS", kStart, "sleep(3)"),
              (Lines{kStart, "alarm(5)", "KVR_QueMsgGet(blank)", "alarm(0)", "sleep(3)"}));
    EXPECT_TRUE(in_order(r, {"KVR_QueMsgGet(blank)", "3 line disconnected [0]", "sleep(3)",
                             "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)", kStart}));
    EXPECT_THAT(r.conns, ElementsAre(bind_frame(), bind_frame() + data_frame("x")));
}

TEST_F(LineLoss, DuringAWriteFailsTheWriteAndKeepsTheDescriptorTaken) {
    for (long piece : {75L, 272L, 5L}) {
        host().hooks["write"] = [piece, done = false](const Call& c) mutable -> std::optional<int> {
            if (c.a == piece && !done) {
                done = true;
                raise(SIGUSR2);
                trace(kNote, "%s", fcntl(host().sock, F_GETFD) < 0 ? "descriptor free for others" : "descriptor kept");
            }
            return {};
        };
        const Result r = run_messages({message("hello")});
        ASSERT_EQ(r.conns.size(), 2U) << r.dump();
        EXPECT_EQ(r.conns[1], bind_frame() + data_frame("hello"));
        EXPECT_TRUE(in_order(r, {"3 line disconnected [0]", "descriptor kept", "1 ChlSndData len[5] error[-201]",
                                 "4 send 5 real size[277]"}));
    }
}

class Watcher : public ChannelTest {
  protected:
    Result lose_the_line_when_idle(Cue::Act act) {
        cues_ = {{act, "idle"}};
        host().get = {[](T_KAVRO_MD* md, char* buf, int* len) {
                          wait_for(kBegin);
                          return idle()(md, buf, len);
                      },
                      deliver(message("x"))};
        return run_channel();
    }
};

TEST_F(Watcher, ReportsALostLineOnce) {
    for (Cue::Act act : {Cue::kClose, Cue::kReset, Cue::kSend}) {
        const Result r = lose_the_line_when_idle(act);
        ASSERT_EQ(r.watchers.size(), 2U) << r.dump();
        EXPECT_THAT(r.lines("LHS", r.watchers[0]), ElementsAre(kBegin, "select()", "1 connection lost", kLost,
                                                               "procSndSig2Proc(" + std::to_string(r.pid) + " 12)"));
        EXPECT_EQ(r.count("3 line disconnected [0]"), 1);
        EXPECT_TRUE(in_order(r, {"idle", "3 line disconnected [0]", "alarm(0)", "sleep(3)",
                                 "5 waitpid " + std::to_string(r.watchers[0]) + " begin",
                                 "5 waitpid " + std::to_string(r.watchers[0]) + " end", "fork()"}));
        EXPECT_EQ(r.count("Waitpid error"), 0);
        EXPECT_EQ(r.conns.back(), bind_frame() + data_frame("x"));
    }
}

// The second watcher has inherited the first one's pipe, which must not keep either of them alive.
TEST_F(Watcher, EndsWhenItsChannelIsKilled) {
    host().hooks["sockCanRead"] = failing(1, 1, 1);
    host().get = {deliver(message("x")), finally([] {
                      wait_for("select()", 2);
                      kill(getpid(), SIGKILL);
                  })};
    host().hooks["alarm"] = [](const Call&) -> std::optional<int> {
        wait_for("select()");
        return {};
    };
    const Result r = run_channel();
    EXPECT_EQ(r.status, -SIGKILL);
    ASSERT_EQ(r.watchers.size(), 2U) << r.dump();
    EXPECT_THAT(r.lines("LHS", r.watchers[1]),
                ElementsAre(kBegin, "select()", "2 parent abort[" + std::to_string(r.pid) + "]"));
}

TEST_F(Watcher, SignalsNobodyWhenChannelAndLineEndTogether) {
    cues_ = {{Cue::kClose, "stopped"}};
    host().get = {finally([] {
        wait_for(kBegin);
        kill(host().watcher, SIGSTOP); // resumed when the channel has ended
        siginfo_t stopped{};
        waitid(P_PID, static_cast<id_t>(host().watcher), &stopped, WSTOPPED | WNOWAIT);
        trace(kNote, "stopped");
        trace(kNote, "line %s", wait_readable() ? "closed" : "open");
    })};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"stopped", "line closed"}));
    ASSERT_EQ(r.watchers.size(), 1U);
    EXPECT_THAT(r.lines("LHS", r.watchers[0]),
                ElementsAre(kBegin, "select()", "2 parent abort[" + std::to_string(r.pid) + "]"));
}

TEST_F(Watcher, FailedSelectIsToldAndTheChannelRunsOn) {
    host().hooks["select"] = failing(-1, 1, 9, EBADF);
    const Result r = run_messages({message("x")});
    EXPECT_THAT(r.conns, ElementsAre(bind_frame() + data_frame("x")));
    const Lines lines = r.lines("LHS", r.watchers.at(0));
    ASSERT_EQ(lines.size(), 3U) << r.dump();
    EXPECT_THAT(lines[2], testing::AllOf(StartsWith("1 "), testing::HasSubstr(err(EBADF))));
}

TEST_F(Watcher, HoldsNoMask) {
    host().get = {finally([] {
        wait_for("select()");
        const std::string proc = "/proc/" + std::to_string(host().watcher);
        FILE* status = fopen((proc + "/status").c_str(), "r");
        char line[256];
        unsigned long held = ~0UL;
        while (fgets(line, sizeof line, status) != nullptr && sscanf(line, "SigBlk: %lx", &held) != 1) {
        }
        fclose(status);
        trace(kNote, "mask %lx", held);
    })};
    EXPECT_EQ(run_channel().count("mask 0"), 1);
}

} // namespace
} // namespace kvr::test
