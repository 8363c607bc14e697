// SPDX-License-Identifier: MIT
// Connecting with retries, binding, and the network start around them, seen through event 2.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

class Link : public ChannelTest {};

TEST_F(Link, FirstStartInOrder) {
    chl()["SHORTTMR"] = "4";
    const Result r = run_channel();
    ASSERT_EQ(r.conns.size(), 1U) << r.dump();
    EXPECT_EQ(r.conns[0], bind_frame());
    EXPECT_EQ(r.conns[0].size(), 78U);
    const std::string port = std::to_string(port_);
    const std::vector<std::string> expected = {
        "KVR_ObjGetAttr(CHL CH1 LONGRTY LONGTMR SHORTRTY SHORTTMR CONNAME)",
        "3 chl[CH1] conn[127.0.0.1(" + port + ")]",
        "KVR_ObjSetAttrV(CHS CH1 STATUS=RETRYING)",
        "5 begin connect  [" + address() + "]",
        "sockSetSTimeOut(4)",
        "sockGetHostIp(127.0.0.1)",
        "sockGetLocalAddr()",
        "4 connect [" + address() + "] success",
        "KVR_ObjSetAttrV(CHS CH1 STATUS=BINDING)",
        "write(78)",
        "4 binding channel[CH1] [" + address() + "] success",
        "pipe()",
        "fork()",
        "KVR_ObjSetAttr(CHS CH1 STATUS=RUNING LOCALIP=127.0.0.1 LOCALPORT=" + std::to_string(r.ports[0]) +
            " REMOTEIP=127.0.0.1 REMOTEPORT=" + port + ")",
        "5 --------------------start recv msg----------------------",
        "alarm(5)",
        "KVR_QueMsgGet(blank)"};
    EXPECT_EQ(r.lines_between("LHS", expected.front(), expected.back()), expected);
    EXPECT_THAT(r.lines("T"), Contains("nodelay=1"));
}

TEST_F(Link, BindFrameCarriesTheName) {
    for (const std::string& name : {std::string("A"), std::string("CHANNEL8"), std::string(63, 'Z')}) {
        host().name = name;
        host().objects["CHL/" + name] = chl();
        const Result r = run_channel();
        EXPECT_THAT(r.conns, ElementsAre(bind_frame(name)));
    }
}

TEST_F(Link, ConnectionNames) {
    const std::string long_host(240, 'h');
    const struct {
        std::string name, shown, resolved;
    } cases[] = {
        {"10.1.2.3(1414)", "10.1.2.3:1414", "10.1.2.3"},
        {"10.1.2.3", "10.1.2.3:5151", "10.1.2.3"},
        {"10.1.2.3(0)", "10.1.2.3:5151", "10.1.2.3"},
        {"10.1.2.3(abc)", "10.1.2.3:5151", "10.1.2.3"},
        {"10.1.2.3(1414", "10.1.2.3:1414", "10.1.2.3"},
        {"10.1.2.3(12ab)", "10.1.2.3:12", "10.1.2.3"},
        {"10.1.2.3(-7)", "10.1.2.3:-7", "10.1.2.3"},
        {"10.1.2.3 (1414)", "10.1.2.3 :1414", "10.1.2.3 "},
        {"(1414)", ":1414", ""},
        {"", ":5151", ""},
        {long_host + "(77)", long_host + ":77", long_host},
    };
    host().hooks["sockGetHostIp"] = failing(-1, 1, 99, ENOENT); // no such address is ever dialled
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        chl()["CONNAME"] = c.name;
        const Result r = run_channel();
        EXPECT_TRUE(in_order(r, {"3 chl[CH1] conn[" + c.name + "]", "5 begin connect  [" + c.shown + "]",
                                 "sockGetHostIp(" + c.resolved + ")", "event 2 = -10002"}));
    }
    chl()["CONNAME"] = "h(" + std::string(200, '1') + ")"; // more digits than any port: no crash, one attempt
    EXPECT_EQ(run_channel().count("sockGetHostIp(h)"), 1);
}

TEST_F(Link, RetriesShortThenLong) {
    listening_ = false;
    chl()["SHORTRTY"] = "3";
    chl()["SHORTTMR"] = "5";
    chl()["LONGRTY"] = "2";
    chl()["LONGTMR"] = "60";
    const Result r = run_channel();
    std::vector<std::string> expected;
    const std::string refused = err(ECONNREFUSED);
    for (int i = 0; i < 6; ++i) {
        const int shorts = std::min(i, 3);
        expected.push_back("5 begin connect  [" + address() + "]");
        expected.push_back("1 connect [" + address() + "]  error[" + std::to_string(ECONNREFUSED) + ":connect[" +
                           address() + "] error[" + refused + "]] return[-1]");
        expected.push_back("5 shorttry[" + std::to_string(shorts) + "] longtry[" + std::to_string(i - shorts) + "]");
        if (i < 5) {
            expected.push_back("5 sleep(" + std::string(i < 3 ? "5" : "60") + ")");
            expected.push_back(i < 3 ? "sleep(5)" : "sleep(60)");
        }
    }
    expected.push_back("1 connect[" + address() + "] error shorttry[3:5] longtry[2:60]");
    EXPECT_EQ(r.lines_between("LS", expected.front(), expected.back()), expected);
    const auto lines = r.lines("L");
    EXPECT_THAT(lines[lines.size() - 2], StartsWith("1 Connect2Lsr error["));
    EXPECT_EQ(lines.back(), "1 SndrNetInit error[-1]");
    EXPECT_TRUE(in_order(r, {"event 2 = -10002"}));
    EXPECT_EQ(r.count("STATUS=RETRYING"), 1);
    EXPECT_EQ(r.count("KVR_ObjSetAttr"), 1) << "the status stays RETRYING";
    EXPECT_EQ(r.count("fork()") + r.count("KVR_QueMsgGet"), 0);
}

TEST_F(Link, RetryNumbersOutOfTheOrdinary) {
    const struct {
        const char *srty, *stmr, *lrty, *ltmr;
        int attempts;
        std::vector<std::string> pauses; ///< other than of 0 seconds
        const char* send_limit;
    } cases[] = {{"", "", "", "", 1, {}, "sockSetSTimeOut(0)"},
                 {"-2", "5", "-1", "6", 1, {}, "sockSetSTimeOut(5)"},
                 {"1", "-5", "1", "-6", 3, {}, "sockSetSTimeOut(0)"},
                 {"x", "y", " 2z", "1", 3, {"sleep(1)", "sleep(1)"}, "sockSetSTimeOut(0)"}};
    listening_ = false;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.srty);
        chl()["SHORTRTY"] = c.srty;
        chl()["SHORTTMR"] = c.stmr;
        chl()["LONGRTY"] = c.lrty;
        chl()["LONGTMR"] = c.ltmr;
        const Result r = run_channel();
        EXPECT_EQ(r.count("sockGetHostIp("), c.attempts);
        EXPECT_EQ(r.count(c.send_limit), c.attempts) << r.dump();
        auto pauses = r.lines("S");
        std::erase_if(pauses, [](const std::string& line) { return line.find("sleep") != 0 || line == "sleep(0)"; });
        EXPECT_EQ(pauses, c.pauses);
    }
}

TEST_F(Link, ListenerComesUpInTheLongPhase) {
    chl()["SHORTRTY"] = "1";
    chl()["LONGRTY"] = "5";
    host().hooks["sockGetHostIp"] = failing(-1, 1, 3, EHOSTUNREACH);
    const Result r = run_channel();
    EXPECT_EQ(r.count("sockGetHostIp("), 4);
    EXPECT_TRUE(in_order(r, {"sleep(4)", "sleep(6)", "sleep(6)", "sockGetHostIp(127.0.0.1)",
                             "4 connect [" + address() + "] success", "KVR_QueMsgGet(blank)"}));
    EXPECT_THAT(r.conns, ElementsAre(bind_frame()));
}

TEST_F(Link, EachFailureOfTheFirstStart) {
    const std::string broken = "[32:write[78] ret[20] error[" + err(EPIPE) + "]]";
    const struct {
        const char* op;
        Hook hook;
        std::vector<std::string> logged; ///< starts of the level-1 lines before that of the run loop
        int result;                      ///< of the network start
        size_t watchers;
    } cases[] = {
        {"KVR_ObjGetAttr", failing(-7), {"1 get chl[CH1] error[-7]", "1 Connect2Lsr error["}, -1, 0},
        {"KVR_ObjSetAttrV", failing(-8), {"1 KVR_ObjSetAttrV[CHS][CH1] return[-8]", "1 Connect2Lsr error["}, -1, 0},
        {"KVR_ObjSetAttrV", failing(-8, 2), {"1 KVR_ObjSetAttrV[CHS][CH1] return[-8]", "1 BindChl error["}, -1, 0},
        {"write",
         failing_write(78, 1, 20, EPIPE),
         {"1 write [78] to receiver error" + broken + " return[-1]", "1 BindChl error["},
         -1,
         0},
        {"pipe", failing(-1, 1, 1, EMFILE), {"1 pipe error[" + err(EMFILE) + "]", "1 fork error["}, -1, 0},
        {"fork", failing(-1, 1, 1, EAGAIN), {"1 fork error[" + err(EAGAIN) + "]", "1 fork error["}, -1, 0},
        {"KVR_ObjSetAttr", failing(-9), {"1 KVR_ObjSetAttr[CHS][CH1] return[-9]"}, -10002, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged[0]);
        host().hooks = {{c.op, c.hook}};
        const Result r = run_channel();
        auto level1 = r.lines("L");
        std::erase_if(level1, [](const std::string& line) { return line[0] != '1'; });
        ASSERT_EQ(level1.size(), c.logged.size() + 1) << r.dump();
        for (size_t i = 0; i < c.logged.size(); ++i) {
            EXPECT_THAT(level1[i], StartsWith(c.logged[i]));
        }
        EXPECT_EQ(level1.back(), "1 SndrNetInit error[" + std::to_string(c.result) + "]");
        EXPECT_EQ(r.watchers.size(), c.watchers);
        EXPECT_TRUE(in_order(r, {"event 2 = -10002"}));
        EXPECT_EQ(r.count("KVR_QueMsgGet"), 0);
    }
}

TEST_F(Link, ChangedDefinitionTakesEffectAtTheNextConnection) {
    host().hooks["sockCanRead"] = failing(1, 1, 1);
    host().get.push_back([](T_KAVRO_MD* md, char* buf, int* len) {
        host().objects["CHL/CH1"]["SHORTTMR"] = "11";
        return deliver(message("x"))(md, buf, len);
    });
    const Result r = run_channel();
    EXPECT_TRUE(in_order(r, {"sockSetSTimeOut(4)", "3 RCVER CLOSED", "sockSetSTimeOut(11)"}));
}

// A line-loss signal while a connection is being made must not touch the new client: it waits for the new watcher.
TEST_F(Link, SignalsAreHeldWhileAConnectionIsMade) {
    for (int sig : {SIGUSR2, SIGALRM}) {
        host().hooks["sockCanRead"] = failing(1, 1, 1);
        host().hooks["KVR_ObjGetAttr"] = raising(sig, 2);
        const Result r = run_messages({message("one")});
        ASSERT_GE(r.conns.size(), 2U) << r.dump();
        EXPECT_EQ(r.conns.back(), bind_frame() + data_frame("one")) << r.dump();
        if (sig == SIGUSR2) {
            EXPECT_TRUE(in_order(r, {"fork()", "pipe()", "fork()", "3 line disconnected [0]"}));
        }
    }
}

TEST_F(Link, SignalsBeforeTheClientExistOnlyRaiseFlags) {
    for (int sig : {SIGUSR2, SIGALRM}) {
        host().hooks["KVR_ObjGetAttrV"] = raising(sig, 3); // handlers installed, client still all zero
        const Result r = run_messages({message("one")});
        EXPECT_THAT(r.conns, ElementsAre(bind_frame() + data_frame("one"))) << r.dump();
    }
}

// The second life in one process: a first run that left its line flag up, an exit, a new start-up. Descriptor 0 is a
// socket of somebody else's throughout and must stay untouched.
TEST_F(Link, SecondLifeInOneProcessLeaksNothingAndLeavesDescriptorZeroAlone) {
    host().hooks["fork"] = failing(-1, 1, 1, EAGAIN);
    host().get = {deliver(message("one")), finally([] {
                      trace(kNote, "descriptors %d", open_descriptors());
                      char byte;
                      const bool quiet = recv(host().var.iVersion, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
                      trace(kNote, "decoy %s", quiet ? "untouched" : "touched");
                  })};
    const Result r = run([] {
        int decoy[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, decoy);
        dup2(decoy[0], 0);
        close(decoy[0]);
        host().var.iVersion = decoy[1];
        load();
        trace(kNote, "before %d", open_descriptors());
        for (int id : {1, 2, 4, 1, 2}) {
            event(id);
        }
    });
    EXPECT_TRUE(in_order(r, {"event 2 = -10002", "event 4 = 0", "event 1 = 0", "decoy untouched"}));
    ASSERT_EQ(r.conns.size(), 2U) << r.dump();
    EXPECT_EQ(r.conns[1], bind_frame() + data_frame("one"));
    int before = 0;
    int after = 0;
    for (const std::string& note : r.lines("E")) {
        sscanf(note.c_str(), "before %d", &before);
        sscanf(note.c_str(), "descriptors %d", &after);
    }
    EXPECT_EQ(after, before + 2) << "one connection and one pipe end";
}

} // namespace
} // namespace kvr::test
