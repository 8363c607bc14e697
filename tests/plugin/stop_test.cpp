// SPDX-License-Identifier: MIT
// Shutdown (event 4), raised from inside the get as a host does to a running channel.
#include <signal.h>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using Lines = std::vector<std::string>;

class Stop : public ChannelTest {};

/// Ends the watcher as a side effect, so that the wait for it ends although the call's result says otherwise.
Hook kills_and_says(int result, int code) {
    return [=](const Call& c) -> std::optional<int> {
        kill(static_cast<pid_t>(c.a), SIGKILL);
        errno = code;
        return result;
    };
}

/// "@" stands for the watcher's process id.
void append(Lines& lines, const Lines& shapes, pid_t watcher) {
    for (std::string line : shapes) {
        if (const auto at = line.find('@'); at != std::string::npos) {
            line.replace(at, 1, std::to_string(watcher));
        }
        lines.push_back(line);
    }
}

// A restart and a stop do the same about the line watcher.
TEST_F(Stop, WatcherIsKilledAndReapedAtARestartAndAtAStop) {
    const std::string begin = "5 waitpid @ begin";
    const std::string end = "5 waitpid @ end";
    const struct {
        const char* name;
        std::map<std::string, Hook> hooks;
        Lines reaped;
    } cases[] = {
        {"Alive", {}, {"procIsExist(@)", "procSndSig2Proc(@ 9)", begin, "waitpid()", end}},
        {"EndedByItself", {{"procIsExist", kills_and_says(0, 0)}}, {"procIsExist(@)", begin, "waitpid()", end}},
        {"KillFails",
         {{"procSndSig2Proc", kills_and_says(-1, EPERM)}},
         {"procIsExist(@)", "procSndSig2Proc(@ 9)", "1 procSndSig2Proc f_iMonPid[@] error[" + err(EPERM) + "]", begin,
          "waitpid()", end}},
        {"WaitInterrupted",
         {{"waitpid", [](const Call& c) { return c.n % 2 == 1 ? failing(-1, 1, 9, EINTR)(c) : std::nullopt; }}},
         {"procIsExist(@)", "procSndSig2Proc(@ 9)", begin, "waitpid()", "4 Waitpid error[" + err(EINTR) + "]",
          "waitpid()", end}},
        {"NoSuchChild",
         {{"waitpid", failing(-1, 1, 9, ECHILD)}},
         {"procIsExist(@)", "procSndSig2Proc(@ 9)", begin, "waitpid()", "4 Waitpid error[" + err(ECHILD) + "]", end}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const bool look_fails = c.hooks.empty(); // counts as a closed line
        host().hooks = c.hooks;
        host().hooks["sockCanRead"] = failing(look_fails ? -3 : 1, 1, 1);
        host().get = {deliver(message("one")), finally([] { event(4); })};
        const Result r = run_channel();
        ASSERT_EQ(r.watchers.size(), 2U) << r.dump();
        Lines restart = {"sockCanRead()"};
        append(restart, look_fails ? Lines{"1 sockCanRead [-3]"} : Lines{}, 0);
        append(restart, {"3 RCVER CLOSED"}, 0);
        append(restart, c.reaped, r.watchers[0]);
        append(restart, {"KVR_ObjGetAttr(CHL CH1 LONGRTY LONGTMR SHORTRTY SHORTTMR CONNAME)"}, 0);
        EXPECT_EQ(r.lines_between("LHS", restart.front(), restart.back()), restart);
        EXPECT_THAT(r.conns, testing::ElementsAre(bind_frame(), bind_frame() + data_frame("one")));
        EXPECT_EQ(r.count("LOCALPORT=" + std::to_string(r.ports[1]) + " "), 1);
        EXPECT_EQ(r.count("STATUS=RETRYING"), 2);
        Lines stop = {"KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)"};
        append(stop, c.reaped, r.watchers[1]);
        append(stop, {"KVR_QueClose(XQ XQ)", "event 4 = 0"}, 0);
        EXPECT_EQ(r.lines_between("LHSE", stop.front(), stop.back()), stop);
    }
}

TEST_F(Stop, ClosesBothQueuesAndTellsWhatFails) {
    Message bad;
    bad.data = "bad";
    for (const bool fails : {false, true}) {
        if (fails) {
            host().hooks = {{"KVR_ObjSetAttrV", failing(-4, 3)}, {"KVR_QueClose", failing(-6)}};
        }
        host().get = {deliver(bad), finally([] { event(4); })};
        const Result r = run_channel();
        Lines lines = r.lines_between("LHE", "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)", "event 4 = 0");
        std::erase_if(lines,
                      [](const std::string& line) { return line.find("proc") == 0 || line.find("5 waitpid") == 0; });
        EXPECT_EQ(lines, fails ? (Lines{"KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)",
                                        "1 KVR_ObjSetAttrV[CHS][CH1] return[-4]", "KVR_QueClose(XQ XQ)",
                                        "1 KVR_QueClose[XQ] return[-6]", "KVR_QueClose(DLQ DLQ)",
                                        "1 KVR_QueClose[DLQ] return[-6]", "event 4 = 0"})
                               : (Lines{"KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)", "KVR_QueClose(XQ XQ)",
                                        "KVR_QueClose(DLQ DLQ)", "event 4 = 0"}));
    }
}

// A stop inside the get leaves the alarm armed; a heartbeat must not interrupt the last use of the connection.
TEST_F(Stop, AnAlarmDuringTheStopSendsNoHeartbeat) {
    host().hooks["KVR_QueClose"] = raising(SIGALRM);
    host().get = {finally([] { event(4); })};
    EXPECT_THAT(run_channel().conns, testing::ElementsAre(bind_frame()));
}

// A failed start has left no watcher: nothing is waited for, and the addresses of the status object stay.
TEST_F(Stop, AfterAFailedNetworkStart) {
    listening_ = false;
    const Result r = run_events({1, 2, 4, 1});
    EXPECT_EQ(r.lines_between("LHSE", "event 2 = -10002", "event 4 = 0"),
              (Lines{"event 2 = -10002", "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)", "KVR_QueClose(XQ XQ)",
                     "event 4 = 0"}));
    EXPECT_TRUE(in_order(r, {"event 4 = 0", "5 CH1 stat [STOPED] pid[-1]", "event 1 = 0"}));
}

} // namespace
} // namespace kvr::test
