// SPDX-License-Identifier: MIT
// Load, start-up (event 1) and the first network start (event 2): the order of the steps, each failure, the claim of
// the status object, the channel's settings, a second life.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel_run.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);
extern "C" char* _plug_kavro_chls_Get_Ver(void);

namespace kvr::test {
namespace {

using Start = ChannelTest;

TEST_F(Start, LoadSetsOnlyTheEventHandlerOfTheLatestBlock) {
    std::string text = "^__VERSION_ID__^=Version[KAVRO_v1.1.7_release] Id[$Rev: 152 $] Build[Apr 15 2014]";
    text.resize(256);
    EXPECT_EQ(std::string(_plug_kavro_chls_Get_Ver(), 256), text);
    const Result r = run([] {
        T_RTCORE_CONTEXT first{};
        T_PLUG_MGR_PLUG_VAR var;
        memset(&var, 0x5a, sizeof var);
        var.ptRTCoreCtx = &first;
        T_PLUG_MGR_PLUG_VAR before = var;
        const int result = OnPlugLoad(&var);
        before.pfnEventHdl = var.pfnEventHdl;
        trace(kNote, "%d %d", result, memcmp(&before, &var, sizeof var));
        load();
        for (int id : {0, 3, 5, -1, 4, 1 << 30}) { // unknown ones, and an exit before any start
            event(id);
        }
    });
    EXPECT_EQ(r.lines("LNHSTE"), (Lines{"0 0", "event 0 = 0", "event 3 = 0", "event 5 = 0", "event -1 = 0",
                                        "event 4 = 0", "event 1073741824 = 0"}));
}

TEST_F(Start, EveryStepInOrder) {
    const Result r = run_channel();
    EXPECT_EQ(r.status, kScriptOver);
    ASSERT_THAT(r.conns, ElementsAre(bind_frame("CH1")));
    EXPECT_TRUE(in_order(
        r,
        {"KVR_InitQmgrCtx(QM1) | KVR_LogSetQMName(QM1) | KVR_ObjGetAttrV(CHL CH1 XMITQ CHLTYPE HBINT DISCINT SSLCAUTH) "
         "| "
         "4 [CH1] chltype[SNDR] | 4 HBINT[5] | sigset(13) | sigset(14) | sigset(12) | "
         "KVR_ObjGetAttrV(CHS CH1 PID STATUS) | 5 KVR_ObjGetAttrV[CHS][CH1] return[-1] | "
         "KVR_ObjAdd(CHS CH1 PID=PID STATUS=BINDING) | "
         "KVR_ObjGetAttrV(QMGR QMGR CAFILE CERTFILE KEYFILE KEYPASS DEADQ) | 4 deadq[DLQ] | "
         "4 ca[ca] cert[cert] key[key] keypass[pw] | KVR_QueOpen(XQ) | event 1 = 0 | "
         "KVR_ObjGetAttr(CHL CH1 LONGRTY LONGTMR SHORTRTY SHORTTMR CONNAME) | 3 chl[CH1] conn[127.0.0.1(PORT)] | "
         "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING) | 5 begin connect  [127.0.0.1:PORT] | sockSetSTimeOut(4) | "
         "sockGetHostIp(127.0.0.1) | 4 connect [127.0.0.1:PORT] success | nodelay(1) | "
         "KVR_ObjSetAttrV(CHS CH1 STATUS=BINDING) | write(78) | 4 binding channel[CH1] [127.0.0.1:PORT] success | "
         "pipe() | fork() | KVR_ObjSetAttr(CHS CH1 STATUS=RUNING LOCALIP=127.0.0.1 LOCALPORT=PORT1 "
         "REMOTEIP=127.0.0.1 REMOTEPORT=PORT) | 5 --------------------start recv msg---------------------- | "
         "alarm(5) | KVR_QueMsgGet()"},
        "LHSTE"));
}

// The sweep fails every call; these are the lines that follow from it, with their codes and reasons.
TEST_F(Start, FailuresAreToldWithTheirReasons) {
    const std::string bound = "1 write [78] to receiver error[32:write[78] ret[20] error[32:Broken pipe]] return[-1]";
    const struct {
        const char* op;
        Hook hook;
        Lines told;
        int result = -1; ///< of the network start; 0: the start-up itself fails
    } cases[] = {
        {"sigset", failing_of(SIGUSR2, 1, -1, EINVAL), {"1 sigset SIGUSR2 error:[22][Invalid argument]"}, 0},
        {"KVR_ObjAdd", failing(-5), {"1 KVR_ObjAdd[CHS][CH1] return[-5]", "1 AddObjStat[CH1] return[-10002]"}, 0},
        {"KVR_ObjGetAttrV",
         failing(-1, 3),
         {"1 KVR_ObjGetAttrV[QMGR] [QMGR] return[-1]", "1 InitTcpClient return[-10002]"},
         0},
        {"KVR_ObjGetAttr", failing(-7), {"1 get chl[CH1] error[-7]", "1 Connect2Lsr error[61:No data available]"}},
        {"KVR_ObjSetAttrV",
         failing(-8, 1, 1),
         {"1 KVR_ObjSetAttrV[CHS][CH1] return[-8]", "1 Connect2Lsr error[5:Input/output error]"}},
        {"KVR_ObjSetAttrV",
         failing(-8, 2, 2, EROFS),
         {"1 KVR_ObjSetAttrV[CHS][CH1] return[-8]", "1 BindChl error[" + err(EROFS) + "]"}},
        {"write", failing(20, 1, 1, EPIPE), {bound, "1 BindChl error[32:Broken pipe]"}},
        {"pipe",
         failing(-1, 1, 1, 5000),
         {"1 pipe error[5000:Unknown error 5000]", "1 fork error[5000:Unknown error 5000]"}},
        {"fork", failing(-1, 1, 1, EAGAIN), {"1 fork error[" + err(EAGAIN) + "]", "1 fork error[" + err(EAGAIN) + "]"}},
        {"KVR_ObjSetAttr", failing(-9), {"1 KVR_ObjSetAttr[CHS][CH1] return[-9]"}, -10002},
    };
    for (const auto& c : cases) {
        host().hooks = {{c.op, c.hook}};
        const Result r = run_events(c.result != 0 ? std::vector{1, 2, 4} : std::vector{1, 4});
        EXPECT_TRUE(in_order(r, c.told));
        EXPECT_TRUE(
            in_order(r, {c.result == 0 ? "event 1 = -10002"
                                       : "1 SndrNetInit error[" + std::to_string(c.result) + "] | event 2 = -10002"}));
    }
}

TEST_F(Start, ChannelNames) {
    const std::string longest(63, 'Z');
    const struct {
        std::string given, bound; ///< the latter empty: refused before anything is asked
        int options = kOptions;
        bool missing = false;
    } cases[] = {{"a", "A"},
                 {std::string(63, 'z'), longest},
                 {longest + "Z", ""},
                 {std::string(5000, 'n'), ""},
                 {"none in the table", "", kOptions, true},
                 {"beyond the table", "", RTCORE_ARG_MAX - 4}};
    host().objects["CHL/A"] = host().objects["CHL/" + longest] = chl();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given.substr(0, 70));
        host().name = c.given;
        const Result r = run([&c] {
            load();
            host().ctx.tRTCoreArgv.iOptc = c.options;
            if (c.missing) {
                host().ctx.tRTCoreArgv.tArg[kOptions + 4].psValue = nullptr;
            }
            event(1);
            event(2);
        });
        if (c.bound.empty()) {
            EXPECT_TRUE(in_order(r, {"event 1 = -10002", "event 2 = -10002"}));
            EXPECT_EQ(r.count("KVR_Obj"), 0);
            EXPECT_THAT(r.lines("L").at(0), StartsWith("1 channel name missing"));
        } else {
            EXPECT_THAT(r.conns, ElementsAre(bind_frame(c.bound)));
        }
    }
}

TEST_F(Start, ClaimsTheStatusObjectUnlessALiveProcessHoldsIt) {
    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    waitpid(ended, nullptr, 0);
    const std::string dead = std::to_string(ended);
    const std::string live = std::to_string(getpid());
    const struct {
        std::string status, pid;
        bool claimed;
    } cases[] = {
        {"STOPED", live, true},   {"RUNING", dead, true},  {"RETRYING", dead, true}, {"RUNING", live, false},
        {"BINDING", live, false}, {"stoped", live, false}, {"", live, false},        {"RUNING", "", true},
        {"RUNING", "0", true},    {"RUNING", "-1", true},  {"RUNING", "x", true},
    };
    for (const auto& c : cases) {
        host().objects["CHS/CH1"] = {{"STATUS", c.status}, {"PID", c.pid}};
        const Result r = run_events({1, 4});
        const std::string read = "5 CH1 stat [" + c.status + "] pid[" + c.pid + "]";
        if (c.claimed) {
            EXPECT_TRUE(in_order(r, {read, "KVR_ObjSetAttrV(CHS CH1 PID=PID STATUS=BINDING)", "event 1 = 0"}));
        } else {
            EXPECT_TRUE(in_order(r, {read, "1 CH1 stat[" + c.status + "] pid[" + c.pid + "]",
                                     "1 AddObjStat[CH1] return[-10002]", "event 1 = -10002"}));
            EXPECT_EQ(r.count("KVR_ObjSetAttrV("), 0) << "another process's status was written";
        }
    }
    host().objects["CHS/CH1"] = {{"STATUS", "STOPED"}, {"PID", "-1"}};
    host().hooks["KVR_ObjSetAttrV"] = failing(-6);
    EXPECT_TRUE(in_order(run_events({1, 4}), {"1 KVR_ObjSetAttrV[CHS][CH1] return[-6]",
                                              "1 AddObjStat[CH1] return[-10002]", "event 1 = -10002"}));
}

TEST_F(Start, SettingsAreReadByTheRulesOfTheirTexts) {
    const struct {
        std::string type, hbint, ssl;
        Lines told;
    } cases[] = {
        {"sndr", "30", "enable", {"4 HBINT[30]", "1 SndrNetInit error[-1]", "event 2 = -10002"}}, // no files for TLS
        {"SnDr", " +7s", "ENABLED", {"4 HBINT[7]", "4 deadq[]", "4 ca[] cert[] key[] keypass[]", "alarm(7)"}},
        {"SNDR", "", "", {"4 HBINT[0]", "alarm(0)"}},
        {"SNDR", "-5", "DISABLE", {"4 HBINT[-5]", "alarm(0)"}},
        {"RCVR", "soon", "", {"1 [CH1] chltype[RCVR] fault", "event 1 = -10002"}},
        {"", "soon", "", {"1 [CH1] chltype[] fault", "event 1 = -10002"}},
    };
    for (const auto& c : cases) {
        chl()["CHLTYPE"] = c.type;
        chl()["HBINT"] = c.hbint;
        chl()["SSLCAUTH"] = c.ssl;
        qmgr() = {};
        const Result r = run_channel();
        EXPECT_TRUE(in_order(r, {"4 [CH1] chltype[" + c.type + "]"}));
        EXPECT_TRUE(in_order(r, c.told));
    }
}

TEST_F(Start, ConnectionNames) {
    const std::string long_host(240, 'h');
    const struct {
        std::string name, host, port;
    } cases[] = {
        {"10.1.2.3(1414)", "10.1.2.3", "1414"},
        {"10.1.2.3", "10.1.2.3", "5151"},
        {"10.1.2.3(0)", "10.1.2.3", "5151"},
        {"10.1.2.3(abc)", "10.1.2.3", "5151"},
        {"10.1.2.3(1414", "10.1.2.3", "1414"},
        {"10.1.2.3(12ab)", "10.1.2.3", "12"},
        {"10.1.2.3(-7)", "10.1.2.3", "-7"},
        {"10.1.2.3 (1414)", "10.1.2.3 ", "1414"},
        {"(1414)", "", "1414"},
        {"", "", "5151"},
        {long_host + "(77)", long_host, "77"},
        {"many(" + std::string(200, '1') + ")", "many", "-1"}, // no crash
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host().hooks["sockGetHostIp"] = failing(-1, 1, 99, ENOENT); // no such address is ever dialled
        chl()["CONNAME"] = c.name;
        EXPECT_TRUE(in_order(run_channel(),
                             {"3 chl[CH1] conn[" + c.name + "]", "5 begin connect  [" + c.host + ":" + c.port + "]",
                              "sockGetHostIp(" + c.host + ")", "event 2 = -10002"}));
    }
}

TEST_F(Start, RetriesShortThenLong) {
    const struct {
        std::string srty, stmr, lrty, ltmr;
        size_t shorts;
        Lines pauses;
        std::string send_limit, told;
    } cases[] = {{"3", "5", "2", "60", 3, {"5", "5", "5", "60", "60"}, "5", "shorttry[3:5] longtry[2:60]"},
                 {"", "", "", "", 0, {}, "0", "shorttry[0:0] longtry[0:0]"},
                 {"-2", "5", "-1", "6", 0, {}, "5", "shorttry[0:5] longtry[0:6]"},
                 {"1", "-5", "1", "-6", 1, {"0", "0"}, "0", "shorttry[1:0] longtry[1:0]"},
                 {"x", "y", " 2z", "1", 0, {"1", "1"}, "0", "shorttry[0:0] longtry[2:1]"}};
    listening_ = false;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.told);
        chl()["SHORTRTY"] = c.srty;
        chl()["SHORTTMR"] = c.stmr;
        chl()["LONGRTY"] = c.lrty;
        chl()["LONGTMR"] = c.ltmr;
        const Result r = run_channel();
        std::string expected;
        for (size_t i = 0; i <= c.pauses.size(); ++i) {
            const size_t shorts = std::min(i, c.shorts);
            expected += "5 begin connect  [127.0.0.1:PORT] | sockSetSTimeOut(" + c.send_limit +
                        ") | sockGetHostIp(127.0.0.1) | 1 connect [127.0.0.1:PORT]  error[111:connect[127.0.0.1:PORT] "
                        "error[111:Connection refused]] return[-1] | 5 shorttry[" +
                        std::to_string(shorts) + "] longtry[" + std::to_string(i - shorts) + "] | ";
            if (i < c.pauses.size()) {
                expected += "5 sleep(" + c.pauses[i] + ") | sleep(" + c.pauses[i] + ") | ";
            }
        }
        EXPECT_TRUE(in_order(
            r,
            {expected + "1 connect[127.0.0.1:PORT] error " + c.told + " | 1 Connect2Lsr error[111:Connection refused]"},
            "LHS"));
        EXPECT_EQ(r.count("STATUS=RETRYING"), 1);
    }
}

// A start that is refused leaves the object to whom it belongs, whatever an earlier start in this process had claimed.
TEST_F(Start, TheExitAfterARefusedStartReleasesOnlyWhatThisProcessHolds) {
    const auto taken_over = [] {
        host().objects["CHS/CH1"] = {{"STATUS", "RUNING"}, {"PID", std::to_string(getppid())}};
    };
    const struct {
        std::vector<int> before;
        bool taken;
        int released;
    } cases[] = {{{1, 4}, true, 1}, {{1}, true, 0}, {{1}, false, 1}};
    for (const auto& c : cases) {
        const Result r = run([&] {
            load();
            for (const int id : c.before) {
                event(id);
            }
            if (c.taken) {
                taken_over();
            }
            event(1);
            event(4);
        });
        EXPECT_TRUE(
            in_order(r, {"event 1 = 0", "1 AddObjStat[CH1] return[-10002]", "event 1 = -10002", "event 4 = 0"}));
        EXPECT_EQ(r.count("KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)"), c.released) << r.dump();
    }
}

} // namespace
} // namespace kvr::test
