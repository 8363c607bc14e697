// SPDX-License-Identifier: MIT
// Shutdown (event 4), raised from inside the get as a host does to a running channel.
#include <signal.h>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using Lines = std::vector<std::string>;

class Stop : public ChannelTest {};

std::optional<int> kill_first(const Call& c, int result, int code) {
    kill(static_cast<pid_t>(c.a), SIGKILL);
    errno = code;
    return result;
}

TEST_F(Stop, MarksStopsReapsAndCloses) {
    const Lines wait = {"procIsExist(P)", "procSndSig2Proc(P 9)", "5 waitpid P begin", "waitpid()", "5 waitpid P end"};
    const struct {
        const char* name;
        std::map<std::string, Hook> hooks;
        bool dead_letters;
        Lines marked, waited, closed;
    } cases[] = {
        {"Quiet", {}, false, {}, wait, {"KVR_QueClose(XQ XQ)"}},
        {"DeadLetterQueueOpen", {}, true, {}, wait, {"KVR_QueClose(XQ XQ)", "KVR_QueClose(DLQ DLQ)"}},
        {"WatcherEndedByItself",
         {{"procIsExist", [](const Call& c) { return kill_first(c, 0, 0); }}},
         false,
         {},
         {"procIsExist(P)", "5 waitpid P begin", "waitpid()", "5 waitpid P end"},
         {"KVR_QueClose(XQ XQ)"}},
        {"KillFails",
         {{"procSndSig2Proc", [](const Call& c) { return kill_first(c, -1, EPERM); }}},
         false,
         {},
         {"procIsExist(P)", "procSndSig2Proc(P 9)", "1 procSndSig2Proc f_iMonPid[P] error[" + err(EPERM) + "]",
          "5 waitpid P begin", "waitpid()", "5 waitpid P end"},
         {"KVR_QueClose(XQ XQ)"}},
        {"WaitInterruptedAndThenNoChild",
         {{"waitpid", [](const Call& c) { return failing(-1, 1, 2, c.n == 1 ? EINTR : ECHILD)(c); }}},
         false,
         {},
         {"procIsExist(P)", "procSndSig2Proc(P 9)", "5 waitpid P begin", "waitpid()",
          "4 Waitpid error[" + err(EINTR) + "]", "waitpid()", "4 Waitpid error[" + err(ECHILD) + "]",
          "5 waitpid P end"},
         {"KVR_QueClose(XQ XQ)"}},
        {"StatusAndClosesFail",
         {{"KVR_ObjSetAttrV", failing(-4, 3)}, {"KVR_QueClose", failing(-6)}},
         true,
         {"1 KVR_ObjSetAttrV[CHS][CH1] return[-4]"},
         wait,
         {"KVR_QueClose(XQ XQ)", "1 KVR_QueClose[XQ] return[-6]", "KVR_QueClose(DLQ DLQ)",
          "1 KVR_QueClose[DLQ] return[-6]"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host().hooks = c.hooks;
        Message bad;
        bad.data = "bad";
        if (c.dead_letters) {
            host().get.push_back(deliver(bad));
        }
        host().get.push_back(finally([] { event(4); }));
        const Result r = run_channel();
        ASSERT_EQ(r.watchers.size(), 1U) << r.dump();
        Lines expected = {"KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)"};
        for (const Lines* part : {&c.marked, &c.waited, &c.closed}) {
            for (std::string line : *part) {
                for (const char* shape : {"(P", " P ", "[P]"}) {
                    if (const auto at = line.find(shape); at != std::string::npos) {
                        line.replace(at + 1, 1, std::to_string(r.watchers[0]));
                    }
                }
                expected.push_back(line);
            }
        }
        expected.push_back("event 4 = 0");
        EXPECT_EQ(r.lines_between("LHSE", expected.front(), expected.back()), expected);
    }
}

// A stop inside the get leaves the alarm armed; a heartbeat must not interrupt the last use of the connection.
TEST_F(Stop, AnAlarmDuringTheStopSendsNoHeartbeat) {
    host().hooks["KVR_QueClose"] = [](const Call&) -> std::optional<int> {
        raise(SIGALRM);
        return {};
    };
    host().get = {finally([] { event(4); })};
    EXPECT_THAT(run_channel().conns, testing::ElementsAre(bind_frame()));
}

// A failed start has left no watcher: nothing is waited for, and the addresses of the status object stay.
TEST_F(Stop, AfterAFailedNetworkStart) {
    listening_ = false;
    const Result r = run([] {
        load();
        event(1);
        event(2);
        event(4);
        event(1);
    });
    EXPECT_EQ(r.lines_between("LHSE", "event 2 = -10002", "event 4 = 0"),
              (Lines{"event 2 = -10002", "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)", "KVR_QueClose(XQ XQ)",
                     "event 4 = 0"}));
    EXPECT_TRUE(in_order(r, {"event 4 = 0", "5 CH1 stat [STOPED] pid[-1]", "event 1 = 0"}));
}

} // namespace
} // namespace kvr::test
