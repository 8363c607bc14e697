// SPDX-License-Identifier: MIT
// Routing with its attempts, the dead-letter queue, and the run loop around them.
#include <cstring>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using testing::ElementsAre;

using Lines = std::vector<std::string>;

Message raw(const std::string& data) {
    Message msg;
    msg.data = data;
    return msg;
}

class Route : public ChannelTest {};

TEST_F(Route, WithoutAHeaderStraightToTheDeadLetterQueue) {
    const Message good = message(std::string(200, 'g'));
    const std::string header = good.data.substr(0, 72);
    const std::string frame = data_frame(std::string(200, 'g'));
    const std::string twice = bind_frame() + frame + frame;
    // Each follows a good message, whose bytes still stand in the buffer.
    for (const std::string& data :
         {std::string(500, '-'), header.substr(0, 71), header.substr(0, 4), std::string(), "xtmh" + header.substr(4)}) {
        SCOPED_TRACE(data.size());
        const Result r = run_messages({good, raw(data), good});
        EXPECT_THAT(r.conns, ElementsAre(twice));
        const std::string size = std::to_string(data.size());
        EXPECT_EQ(r.lines_between("LHS", "4 rcv len[" + size + "]", "KVR_QueMsgPut(" + size + " as received)"),
                  (Lines{"4 rcv len[" + size + "]", "1 msg no xmit header", "1 ProcMsg[-1]", "KVR_QueOpen(DLQ)",
                         "KVR_QueMsgPut(" + size + " as received)"}));
    }
}

TEST_F(Route, OnlyIdentifierAndDestinationOfTheHeaderCount) {
    Message msg = message("body");
    msg.data.replace(4, 4, "\xff\xff\xff\xff", 4);
    msg.data.replace(40, 32, std::string(32, '?'));
    EXPECT_THAT(run_messages({msg}).conns, ElementsAre(bind_frame() + data_frame("body")));
}

TEST_F(Route, FourAttemptsEachOnABoundConnection) {
    for (int failures : {1, 3, 4}) {
        host().hooks["write"] = failing_write(5, failures, 2, ECONNRESET);
        const Result r = run_messages({message("hello"), message("next")});
        const auto attempts = static_cast<size_t>(std::min(failures + 1, 4));
        ASSERT_EQ(r.conns.size(), failures == 4 ? 5U : attempts) << r.dump();
        const std::string cut = data_frame("hello").substr(0, 347);
        for (size_t i = 0; i < static_cast<size_t>(failures); ++i) {
            EXPECT_EQ(r.conns[i], bind_frame() + cut);
        }
        EXPECT_EQ(r.conns.back(), bind_frame() + (failures == 4 ? "" : data_frame("hello")) + data_frame("next"));
        EXPECT_EQ(
            r.count("1 write [5] to receiver error[104:write[5] ret[2] error[" + err(ECONNRESET) + "]] return[-1]"),
            failures);
        EXPECT_EQ(r.count("1 ChlSndData len[5] error[-201]"), failures);
        EXPECT_EQ(r.count("sleep("), 0);
        EXPECT_EQ(r.count("4 send 5 real size[277]"), failures == 4 ? 0 : 1);
        EXPECT_EQ(r.count("KVR_QueMsgPut(77 as received)"), failures == 4 ? 1 : 0);
    }
}

TEST_F(Route, FailedNetworkStartEndsTheAttempts) {
    const struct {
        const char* op;
        Hook hook;
        int result;
        size_t conns;
    } cases[] = {{"sockGetHostIp", failing(-1, 2, 2, EHOSTUNREACH), -1, 2},
                 {"KVR_ObjSetAttr", failing(-5, 2, 2), -10002, 2},
                 {"fork", failing(-1, 2, 2, EAGAIN), -1, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.op);
        host().hooks = {{"write", failing_write(5, 1, 2, EPIPE)}, {c.op, c.hook}};
        const Result r = run_messages({message("hello"), message("next")});
        EXPECT_TRUE(
            in_order(r, {"1 ChlSndData len[5] error[-201]", "1 SndrNetInit error[" + std::to_string(c.result) + "]",
                         "1 ProcMsg[-1]", "KVR_QueMsgPut(77 as received)", "4 send 4 real size[276]"}));
        EXPECT_EQ(r.count("error[-201]"), 1);
        ASSERT_EQ(r.conns.size(), c.conns) << r.dump();
        EXPECT_EQ(r.conns.back(), bind_frame() + data_frame("next")) << "the line that stands is used, bound once";
    }
}

TEST_F(Route, DeadLetterQueueIsOpenedOnceAndItsFailuresAreTold) {
    const std::string put3 = "KVR_QueMsgPut(3 as received)";
    const std::string put4 = "KVR_QueMsgPut(4 as received)";
    const struct {
        const char* deadq;
        const char* op;
        Hook hook;
        Lines first, second; ///< what happens to two messages without a header
    } cases[] = {
        {"DLQ", "none", {}, {"KVR_QueOpen(DLQ)", put3}, {put4}},
        {"", "none", {}, {"1 not set dead queue"}, {"1 not set dead queue"}},
        {"DLQ",
         "KVR_QueOpen",
         failing(-9, 2, 2),
         {"KVR_QueOpen(DLQ)", "1 KVR_QueOpen[DLQ] return[-9]"},
         {"KVR_QueOpen(DLQ)", put4}},
        {"DLQ",
         "KVR_QueMsgPut",
         failing(-3, 1, 1),
         {"KVR_QueOpen(DLQ)", put3, "1 KVR_QueMsgPut[3] return[-3]"},
         {put4}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.deadq) + c.op);
        host().hooks = {{c.op, c.hook}};
        qmgr()["DEADQ"] = c.deadq;
        const Result r = run_messages({raw("bad"), raw("bad!"), message("good")});
        for (const auto& [received, expected] : {std::pair("4 rcv len[3]", c.first), {"4 rcv len[4]", c.second}}) {
            Lines whole = {received, "1 msg no xmit header", "1 ProcMsg[-1]"};
            whole.insert(whole.end(), expected.begin(), expected.end());
            whole.emplace_back("5 --------------------start recv msg----------------------");
            Lines lines = r.lines_between("LHS", received, whole.back());
            lines.resize(whole.size());
            EXPECT_EQ(lines, whole);
        }
        EXPECT_THAT(r.conns, ElementsAre(bind_frame() + data_frame("good")));
    }
}

class Loop : public ChannelTest {};

TEST_F(Loop, EndsTheProcessOnlyOnFailuresItCannotRepair) {
    struct {
        const char* name;
        std::deque<GetStep> get;
        std::map<std::string, Hook> hooks;
        Lines told;
        int status;
    } cases[] = {
        {"GetFails", {get_fails(-7)}, {}, {"alarm(0)", "1 RecvIpcMsg error[-7]"}, 1},
        {"FlagIsClearedByTheFirstInterruption",
         {interrupted(SIGALRM), get_fails(-7)},
         {},
         {"write(75)", "1 RecvIpcMsg error[-7]"},
         1},
        {"RestartFails",
         {interrupted(SIGUSR2)},
         {{"sockGetHostIp", failing(-1, 2, 9, EHOSTUNREACH)}},
         {"sleep(3)", "1 SndrNetInit error[-1]"},
         1},
        {"RestartCannotRecord",
         {interrupted(SIGUSR2)},
         {{"KVR_ObjSetAttr", failing(-5, 2, 2)}},
         {"sleep(3)", "1 SndrNetInit error[-10002]"},
         1},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        host().get = c.get;
        host().hooks = c.hooks;
        const Result r = run_channel();
        EXPECT_EQ(r.status, c.status) << r.dump();
        EXPECT_TRUE(in_order(r, c.told));
    }
}

} // namespace
} // namespace kvr::test
