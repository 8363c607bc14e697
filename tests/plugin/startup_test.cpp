// SPDX-License-Identifier: MIT
// Start-up (event 1): the order of its steps, each failure, the claim of the status object, the channel's settings.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel_run.h"

namespace kvr::test {
namespace {

using testing::Contains;
using testing::ElementsAreArray;
using testing::HasSubstr;

using StartUp = ChannelTest;

TEST_F(StartUp, StepsInOrder) {
    qmgr()["KEYPASS"] = "pw";
    const Result r = run([] {
        load();
        event(1);
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        trace(kNote, "SIGPIPE %s", now.sa_handler == SIG_IGN ? "ignored" : "not ignored");
    });
    const std::string pid = std::to_string(r.pid);
    EXPECT_THAT(r.lines("LNHSE"), ElementsAreArray({"KVR_GetQmgrName()",
                                                    "KVR_InitQmgrCtx(zeroed QM1)",
                                                    "KVR_GetQmgrName()",
                                                    "KVR_LogSetQMName(QM1)",
                                                    "strToUpper(ch1)",
                                                    "KVR_ObjGetAttrV(CHL CH1 XMITQ CHLTYPE HBINT DISCINT SSLCAUTH)",
                                                    "4 [CH1] chltype[SNDR]",
                                                    "4 HBINT[5]",
                                                    "sigset(13)",
                                                    "sigset(14)",
                                                    "sigset(12)",
                                                    "KVR_ObjGetAttrV(CHS CH1 PID STATUS)",
                                                    "5 KVR_ObjGetAttrV[CHS][CH1] return[-1]",
                                                    ("KVR_ObjAdd(CHS CH1 PID=" + pid + " STATUS=BINDING)").c_str(),
                                                    "KVR_ObjGetAttrV(QMGR QMGR CAFILE CERTFILE KEYFILE KEYPASS DEADQ)",
                                                    "4 deadq[DLQ]",
                                                    "4 ca[ca] cert[cert] key[key] keypass[pw]",
                                                    "KVR_QueOpen(XQ)",
                                                    "event 1 = 0",
                                                    "SIGPIPE ignored"}));
}

TEST_F(StartUp, OnlyTheSignOfAHostResultCounts) {
    host().success = 3;
    host().objects["CHS/CH1"] = {{"PID", "-1"}, {"STATUS", "STOPED"}};
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"event 1 = 0", "KVR_QueMsgGet(blank)"}));
}

struct Failure {
    const char* op; ///< fails by this hook; without one, what `change` does to the objects makes the start fail
    Hook hook;
    void (*change)(std::map<std::string, Attrs>&);
    std::vector<std::string> logged; ///< what stands between the failed step and the end of the event
    bool claimed;                    ///< whether the exit event has a channel to release
};

/// Fails the installation of one handler.
Hook no_handler(int sig) {
    return [sig](const Call& c) { return c.a == sig ? failing(-1, 1, 99, EINVAL)(c) : std::nullopt; };
}

TEST_F(StartUp, EachFailureIsToldAndEndsIt) {
    using Objects = std::map<std::string, Attrs>;
    const auto stopped = [](Objects& all) { all["CHS/CH1"] = {{"PID", "-1"}, {"STATUS", "STOPED"}}; };
    const Failure failures[] = {
        {"KVR_InitQmgrCtx", failing(-3), nullptr, {"1 KVR_InitQmgrCtx[-3]"}, false},
        {"", {}, [](Objects& all) { all.erase("CHL/CH1"); }, {"1 KVR_ObjGetAttrV[CHL][CH1] return[-1]"}, false},
        {"", {}, [](Objects& all) { all["CHL/CH1"]["CHLTYPE"] = "RCVR"; }, {"1 [CH1] chltype[RCVR] fault"}, false},
        {"", {}, [](Objects& all) { all["CHL/CH1"].erase("CHLTYPE"); }, {"1 [CH1] chltype[] fault"}, false},
        {"sigset", no_handler(SIGALRM), nullptr, {"1 sigset SIGALRM error:[22][Invalid argument]"}, false},
        {"sigset", no_handler(SIGUSR2), nullptr, {"1 sigset SIGUSR2 error:[22][Invalid argument]"}, false},
        {"KVR_ObjAdd",
         failing(-5),
         nullptr,
         {"1 KVR_ObjAdd[CHS][CH1] return[-5]", "1 AddObjStat[CH1] return[-10002]"},
         false},
        {"KVR_ObjSetAttrV",
         failing(-6, 1, 1),
         stopped,
         {"1 KVR_ObjSetAttrV[CHS][CH1] return[-6]", "1 AddObjStat[CH1] return[-10002]"},
         false},
        {"",
         {},
         [](Objects& all) { all.erase("QMGR/QMGR"); },
         {"1 KVR_ObjGetAttrV[QMGR] [QMGR] return[-1]", "1 InitTcpClient return[-10002]"},
         true},
        {"KVR_QueOpen", failing(-8), nullptr, {"1 KVR_QueOpen[XQ] return[-8]"}, true},
    };
    for (const Failure& c : failures) {
        SCOPED_TRACE(c.logged[0]);
        const Host before = host();
        host().hooks[c.op] = c.hook;
        if (c.change != nullptr) {
            c.change(host().objects);
        }
        const Result r = run_events({1, 4});
        auto expected = c.logged;
        expected.emplace_back("event 1 = -10002");
        if (c.claimed) {
            expected.emplace_back("KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)");
        }
        expected.emplace_back("event 4 = 0");
        EXPECT_EQ(r.lines_between("LHSE", c.logged[0], "event 4 = 0"), expected) << r.dump();
        host() = before;
    }
}

TEST_F(StartUp, ChannelNames) {
    const std::string longest(63, 'n');
    struct {
        std::string given;
        int options;
        bool missing, accepted;
    } const cases[] = {{longest, kOptions, false, true},
                       {longest + "n", kOptions, false, false},
                       {std::string(5000, 'n'), kOptions, false, false},
                       {"", kOptions, true, false},
                       {"beyond the table", RTCORE_ARG_MAX - 4, false, false}};
    host().objects["CHL/" + std::string(63, 'N')] = chl();
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
        });
        EXPECT_EQ(r.count(c.accepted ? "event 1 = 0" : "event 1 = -10002"), 1) << r.dump();
        if (!c.accepted) {
            EXPECT_THAT(r.lines("L"), testing::ElementsAre(HasSubstr("1 ")));
            EXPECT_EQ(r.count("KVR_ObjGetAttrV"), 0);
        }
    }
}

TEST_F(StartUp, ClaimsTheStatusObjectUnlessALiveProcessHoldsIt) {
    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    waitpid(ended, nullptr, 0);
    const std::string dead = std::to_string(ended);
    const std::string live = std::to_string(getpid());
    struct {
        const char* status;
        std::string pid;
        bool claimed;
    } const cases[] = {
        {"STOPED", live, true},   {"RUNING", dead, true},  {"RETRYING", dead, true}, {"RUNING", live, false},
        {"BINDING", live, false}, {"stoped", live, false}, {"", live, false},        {"RUNING", "", true},
        {"RUNING", "0", true},    {"RUNING", "-1", true},  {"RUNING", "x", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.status) + " " + c.pid);
        host().objects["CHS/CH1"] = {{"STATUS", c.status}, {"PID", c.pid}};
        const Result r = run_events({1, 4});
        EXPECT_TRUE(in_order(r, {"KVR_ObjGetAttrV(CHS CH1 PID STATUS)",
                                 std::string("5 CH1 stat [") + c.status + "] pid[" + c.pid + "]"}));
        if (c.claimed) {
            EXPECT_TRUE(
                in_order(r, {"KVR_ObjSetAttrV(CHS CH1 PID=" + std::to_string(r.pid) + " STATUS=BINDING)", "event 1 = 0",
                             "KVR_ObjSetAttrV(CHS CH1 PID=-1 STATUS=STOPED)", "KVR_QueClose(XQ XQ)", "event 4 = 0"}));
        } else {
            EXPECT_TRUE(in_order(r, {"1 CH1 stat[" + std::string(c.status) + "] pid[" + c.pid + "]",
                                     "1 AddObjStat[CH1] return[-10002]", "event 1 = -10002", "event 4 = 0"}));
            EXPECT_EQ(r.count("KVR_ObjSetAttrV"), 0) << "another process's status was written";
        }
    }
}

TEST_F(StartUp, SettingsAreReadByTheRulesOfTheirTexts) {
    const struct {
        const char *type, *hbint, *ssl;
        int seconds;
        bool tls;
    } cases[] = {{"sndr", "30", "enable", 30, true},
                 {"SnDr", " +7s", "ENABLE", 7, true},
                 {"SNDR", "", "ENABLED", 0, false},
                 {"SNDR", "soon", "", 0, false},
                 {"SNDR", "60", "DISABLE", 60, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.hbint);
        chl()["CHLTYPE"] = c.type;
        chl()["HBINT"] = c.hbint;
        chl()["SSLCAUTH"] = c.ssl;
        qmgr() = {{"KEYPASS", "pw"}}; // no files: a TLS channel cannot get as far as its status
        const Result r = run_channel();
        EXPECT_TRUE(
            in_order(r, {std::string("4 [CH1] chltype[") + c.type + "]", "4 HBINT[" + std::to_string(c.seconds) + "]",
                         "4 deadq[]", "4 ca[] cert[] key[] keypass[pw]", "event 1 = 0"}));
        if (c.tls) {
            EXPECT_THAT(r.lines("L"), Contains(testing::StartsWith("1 tcpclient init error[-1:")));
            EXPECT_TRUE(in_order(r, {"1 SndrNetInit error[-1]", "event 2 = -10002"}));
            EXPECT_EQ(r.count("STATUS=RETRYING"), 0);
        } else {
            EXPECT_THAT(r.lines("S"), Contains("alarm(" + std::to_string(c.seconds) + ")"));
        }
    }
}

} // namespace
} // namespace kvr::test
