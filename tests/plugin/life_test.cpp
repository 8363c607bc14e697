// SPDX-License-Identifier: MIT
// The life of a channel: names, settings and the status object, retries and pauses, the steps of a start and of a stop,
// heartbeats, a line lost before, in and behind the wait, the line's watcher.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>

#include "channel_run.h"

extern "C" char* _plug_kavro_chls_Get_Ver(void);

namespace kvr::test {

const std::string kRetrying = "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)";

/// What a channel meets in one life, and what must come of it.
struct Case {
    Attrs given; ///< PID and STATUS: of its status object; DEADQ: of the queue manager; others: of its definition
    Lines told;  ///< in this order
    decltype(Host::hooks) hooks = {};
    std::deque<GetStep> get = {};
    Lines conns = {}; ///< empty: not looked at
    int status = -1;  ///< negative: not looked at
};

class Life : public ChannelTest {
  protected:
    void expect(const std::vector<Case>& cases) {
        const auto usual = host().objects;
        for (const Case& c : cases) {
            host().objects = usual;
            for (const auto& [attr, value] : c.given) {
                const bool of_status = attr == "PID" || attr == "STATUS";
                (of_status ? host().objects["CHS CH1"] : attr == "DEADQ" ? qmgr() : chl())[attr] = value;
            }
            host().hooks = c.hooks;
            // The close in a handler wakes the line's watcher, which reports it: that must not end the pause.
            host().hooks["sleep"] = [](long seconds) -> std::optional<int> {
                if (seconds == 3) {
                    wait_for("1 connection lost");
                    trace(line_signals_held() ? "whole pause" : "fault: a pause that can be cut short");
                }
                return 0;
            };
            host().get = c.get;
            const Result r = run_channel();
            EXPECT_TRUE(in_order(r, c.told));
            EXPECT_TRUE(c.conns.empty() || r.conns == c.conns) << testing::PrintToString(r.conns) << r.dump();
            EXPECT_TRUE(c.status < 0 || r.status == c.status) << r.dump();
        }
    }
};

TEST_F(Life, EventsWithoutAStartOrANameDoNothing) {
    std::string text = "^__VERSION_ID__^=Version[KAVRO_v1.1.7_release] Id[$Rev: 152 $] Build[Apr 15 2014]";
    text.resize(256);
    EXPECT_EQ(std::string(_plug_kavro_chls_Get_Ver(), 256), text);
    std::string longest(63, 'z');
    std::string too_long(64, 'z');
    host().objects["CHL " + std::string(63, 'Z')] = chl();
    const Result r = run([&] {
        load();
        std::ranges::for_each(std::vector{0, 3, -1, 4}, event);
        for (char* name : {static_cast<char*>(nullptr), too_long.data(), longest.data()}) {
            host().ctx.tRTCoreArgv.tArg[kOptions + 4].psValue = name;
            event(1);
        }
        host().ctx.tRTCoreArgv.iOptc = RTCORE_ARG_MAX - 4;
        event(1);
    });
    const std::string refused = "1 channel name missing in the process arguments, or longer than [63] characters";
    const std::string no_name = refused + " | event 1 = -10002";
    EXPECT_TRUE(in_order(
        r, {"event 0 = 0 | event 3 = 0 | event -1 = 0 | event 4 = 0", no_name, no_name, "event 1 = 0", no_name}));
}

TEST_F(Life, EachStepOfAStartAndOfAStopInItsOrder) {
    host().get = {deliver(raw("bad")), finally([] { event(4); })};
    const Result r = run_channel();
    EXPECT_EQ(r.conns, Lines{kBind});
    const std::string both_ends = "LOCALIP=127.0.0.1 LOCALPORT=<own port> REMOTEIP=127.0.0.1 REMOTEPORT=<port>";
    EXPECT_TRUE(in_order(
        r, {"KVR_ObjAdd(CHS CH1 PID=<pid> STATUS=BINDING)",
            "4 ca[ca] cert[cert] key[key] keypass[pw] | KVR_QueOpen(XQ) | event 1 = 0", kRetrying,
            "4 connect [127.0.0.1:<port>] success | nodelay(1) | KVR_ObjSetAttrV(CHS CH1 STATUS=BINDING) | write(78)",
            "pipe() | fork()", "KVR_ObjSetAttr(CHS CH1 STATUS=RUNING " + both_ends + ")",
            "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED) | procIsExist(<watcher 1>) | procSndSig2Proc(<watcher 1> 9)",
            "5 waitpid <watcher 1> end", "KVR_QueClose(XQ XQ) | KVR_QueClose(DLQ DLQ) | event 4 = 0"}));
}

TEST_F(Life, SettingsAreReadByTheRulesOfTheirTexts) {
    std::vector<Case> cases = {
        {{{"CHLTYPE", "SnDr"}, {"HBINT", " +7s"}, {"SSLCAUTH", "ENABLED"}}, {"4 HBINT[7]", "alarm(7)"}},
        {{{"CHLTYPE", "sndr"}, {"HBINT", ""}}, {"4 [CH1] chltype[sndr]", "4 HBINT[0]", "alarm(0)"}},
        {{{"HBINT", "-5"}}, {"4 HBINT[-5]", "alarm(0)"}},
        {{{"SSLCAUTH", "enable"}}, {"1 SndrNetInit error[-1]"}}, // there are no files for TLS
        {{{"CHLTYPE", "RCVR"}}, {"1 [CH1] chltype[RCVR] fault", "event 1 = -10002"}},
    };
    // No such address is ever dialled.
    const std::pair<std::string, std::string> addresses[] = {{"10.1.2.3(1414)", "10.1.2.3:1414"},
                                                             {"10.1.2.3", "10.1.2.3:5151"},
                                                             {"10.1.2.3(1414", "10.1.2.3:1414"},
                                                             {"10.1.2.3 (-7)", "10.1.2.3 :-7"},
                                                             {"(12ab)x", ":12"},
                                                             {"", ":5151"},
                                                             {"many(" + std::string(200, '1') + ")", "many:-1"}};
    for (const auto& [name, dialled] : addresses) {
        cases.push_back({{{"CONNAME", name}},
                         {"5 begin connect  [" + dialled + "]", "event 2 = -10002"},
                         {{"sockGetHostIp", failing(-1)}}});
    }
    expect(cases);
}

TEST_F(Life, RetriesShortThenLong) {
    chl()["CONNAME"] = "127.0.0.1(1)"; // where nobody listens
    expect(
        {{{{"SHORTRTY", "3"}, {"SHORTTMR", "5"}, {"LONGRTY", "2"}, {"LONGTMR", "60"}},
          {kRetrying, "sockSetSTimeOut(5)", "5 shorttry[0] longtry[0]", "sleep(5)", "sleep(5)", "sleep(5)", "sleep(60)",
           "sleep(60)", "5 shorttry[3] longtry[2]", "1 connect[127.0.0.1:1] error shorttry[3:5] longtry[2:60]",
           "1 Connect2Lsr error[111:Connection refused]"}},
         {{{"SHORTRTY", "-1"}, {"SHORTTMR", "-5"}, {"LONGRTY", " 2z"}, {"LONGTMR", "1"}},
          {"sockSetSTimeOut(0)", "5 shorttry[0] longtry[0]", "sleep(1)", "sleep(1)",
           "1 connect[127.0.0.1:1] error shorttry[0:0] longtry[2:1]"}}});
}

// The sweep fails every call; these are the lines that follow from it, with their codes and reasons.
TEST_F(Life, FailuresAreToldWithTheirReasons) {
    expect({
        {{}, {"1 sigset SIGUSR2 error:[22][Invalid argument]"}, {{"sigset", failing_of(SIGUSR2, 1, -1, EINVAL)}}},
        {{}, {"1 Connect2Lsr error[61:No data available]"}, {{"KVR_ObjGetAttr", failing(-7)}}},
        {{}, {"1 BindChl error[30:Read-only file system]"}, {{"KVR_ObjSetAttrV", failing(-8, 2, EROFS)}}},
        {{}, {"1 fork error[5000:Unknown error 5000]"}, {{"pipe", failing(-1, 1, 5000)}}},
        // A host that is being stopped is asked before the get uses the message up: procIsExist.
        {{},
         {"procIsExist(<pid>) | KVR_QueOpen(DLQ) | 1 KVR_QueOpen[DLQ] return[-9]",
          "procIsExist(<pid>) | KVR_QueOpen(DLQ) | KVR_QueMsgPut(4)", "procIsExist(<pid>) | KVR_QueMsgPut(5)"},
         {{"KVR_QueOpen", failing(-9, 2)}},
         {deliver(raw("bad")), deliver(raw("bad!")), deliver(raw("again"))}},
        {{{"DEADQ", ""}}, {"4 deadq[]", "procIsExist(<pid>) | 1 not set dead queue"}, {}, {deliver(raw("bad"))}},
    });
}

TEST_F(Life, ClaimsTheStatusObjectUnlessALiveProcessHoldsIt) {
    const std::string dead = "2147483647"; // above every process id
    const std::string live = std::to_string(getpid());
    const std::string claim = "KVR_ObjSetAttrV(CHS CH1 PID=<pid> STATUS=BINDING)";
    const Attrs stopped = {{"STATUS", "STOPED"}, {"PID", live}};
    std::vector<Case> cases = {{stopped, {claim, "event 1 = 0"}},
                               {stopped, {claim, "event 1 = -10002"}, {{"KVR_ObjSetAttrV", failing(-6)}}}};
    for (const std::string& none : {dead, std::string("-1"), std::string("x")}) {
        cases.push_back(
            {{{"STATUS", "RUNING"}, {"PID", none}}, {"5 CH1 stat [RUNING] pid[" + none + "]", claim, "event 1 = 0"}});
    }
    for (const std::string status : {"RUNING", "BINDING", "stoped"}) { // the object of others is not written
        cases.push_back({{{"STATUS", status}, {"PID", live}},
                         {"procIsExist(" + live + ") | 1 CH1 stat[" + status + "] pid[" + live +
                          "] | 1 AddObjStat[CH1] return[-10002] | event 1 = -10002"}});
    }
    expect(cases);
}

// A start that is refused leaves the object to whom it belongs, whatever an earlier start in this process had claimed.
TEST_F(Life, AnExitReleasesOnlyWhatThisProcessHolds) {
    const std::tuple<std::vector<int>, bool, int> cases[] = {{{1, 4}, true, 1}, {{1}, true, 0}, {{1}, false, 1}};
    for (const auto& [before, taken_over, released] : cases) {
        const Result r = run([&before = before, taken = taken_over] {
            load();
            std::ranges::for_each(before, event);
            if (taken) {
                host().objects["CHS CH1"] = {{"STATUS", "RUNING"}, {"PID", std::to_string(getppid())}};
            }
            event(1);
            event(4);
        });
        EXPECT_TRUE(in_order(r, {"event 1 = 0", "event 1 = -10002", "event 4 = 0"}));
        EXPECT_EQ(r.count("KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)"), released) << r.dump();
    }
}

TEST_F(Life, ALineIsKeptAliveOrReplaced) {
    const std::string sent = data_frame("x");
    const std::string beat = kBind + heartbeat_frame();
    const Lines kept = {beat + sent};
    const Lines broken = {kBind + sent.substr(0, 347), kBind + sent};
    const Lines replaced = {kBind, kBind + sent};
    const GetStep x = deliver(message("x"));
    const GetStep alarm = interrupted(SIGALRM);
    const GetStep loss = interrupted(SIGUSR2);
    const Hook loss_at_an_error = [](long level) -> std::optional<int> {
        level == 1 ? raise(SIGUSR2) : 0;
        return {};
    };
    const std::string beaten = "4 heartbeat channel[CH1] [127.0.0.1:<port>]";
    const std::string failed = "1 write [75] to receiver error[32:write[75] ret[9] error[32:Broken pipe]] return[-1]";
    const std::string reset =
        "1 write [1] to receiver error[104:write[1] ret[0] error[104:Connection reset by peer]] return[-1]";
    expect({
        {{}, {"alarm(5)", "write(75)", beaten, "alarm(0)", "alarm(5)"}, {}, {alarm, x}, kept},
        {{}, {beaten}, {{"sockCanRead", failing(-1, 1)}}, {alarm, x}, kept}, // a look that fails holds none back
        {{}, {"3 RCVER CLOSED", "whole pause"}, {{"sockCanRead", failing(1, 1)}}, {alarm, x}, replaced},
        {{}, {failed, "whole pause"}, {{"write", failing_of(75, 1, 9, EPIPE)}}, {alarm, x}, replaced},
        {{}, {"3 line disconnected [0]", "alarm(0)", "sleep(3)", "whole pause", kRetrying}, {}, {loss, x}, replaced},
        {{}, {"1 sockCanRead [-3]", "5 waitpid <watcher 1> end"}, {{"sockCanRead", failing(-3, 1)}}, {x}, replaced},
        {{}, {"1 RecvIpcMsg error[-7]"}, {}, {alarm, [](auto...) { return -7; }}, {beat}, 1},
        {{}, {"1 SndrNetInit error[-1]"}, {{"sockGetHostIp", failing(-1, 2)}}, {loss}, {kBind}, 1},
        // The close in the handler clears the reason.
        {{}, {reset}, {{"write", failing_of(1, 1, 0, ECONNRESET)}, {"log", loss_at_an_error}}, {x}, broken},
    });
}

TEST_F(Life, TheWatcherReportsALostLineOnce) {
    cue_ = {"idle", [](PeerConnection& connection) { connection.write("bytes"); }};
    const GetStep idle = [](T_KAVRO_MD*, char*, int*) {
        wait_for("select()");
        trace("idle");
        wait_for("3 line disconnected");
        return -4;
    };
    host().get = {idle, deliver(message("x"))};
    const Result r = run_channel();
    for (const char* once : {"1 connection lost", "4 ----------------------line disconnected------------------------ ",
                             "procSndSig2Proc(<pid> 12)", "3 line disconnected [0]"}) {
        EXPECT_EQ(r.count(once), 1) << once << r.dump();
    }
    EXPECT_EQ(r.conns.back(), kBind + data_frame("x"));
}

TEST_F(Life, TheWatcherSignalsNobodyWhenChannelAndLineEndTogetherOrItCannotWatch) {
    cue_ = {"stopped", &PeerConnection::close};
    host().get = {finally([] {
        wait_for("select()");
        kill(host().watcher, SIGSTOP); // resumed when the channel has ended
        siginfo_t stopped{};
        waitid(P_PID, static_cast<id_t>(host().watcher), &stopped, WSTOPPED | WNOWAIT);
        trace("stopped");
        pollfd line{host().sock, POLLIN, 0};
        trace("line closed: %d", poll(&line, 1, 10000));
    })};
    Result r = run_channel();
    EXPECT_EQ(r.count("line closed: 1"), 1);
    EXPECT_EQ(r.count("2 parent abort[<pid>]"), 1) << r.dump();
    EXPECT_EQ(r.count("procSndSig2Proc("), 0);
    host().hooks["select"] = failing(-1, 0, EBADF);
    host().get = {finally([] { wait_for("1 select error"); })};
    r = run_channel();
    EXPECT_EQ(r.count("1 select error[9:Bad file descriptor]"), 1) << r.dump();
    EXPECT_EQ(r.count("procSndSig2Proc("), 0);
}

} // namespace kvr::test
