// SPDX-License-Identifier: MIT
// Routing with its attempts, the dead-letter queue, and the run loop around them.
#include <signal.h>

#include "channel_run.h"

namespace kvr::test {
namespace {

const std::string kBind = bind_frame("CH1");

using Route = ChannelTest;

TEST_F(Route, WithoutAHeaderStraightToTheDeadLetterQueue) {
    const Message good = message(std::string(200, 'g'));
    const std::string header = good.data.substr(0, 72);
    const std::string sent = data_frame(std::string(200, 'g'));
    // Each follows a good message, whose bytes still stand in the buffer.
    for (const std::string& data :
         {std::string(500, '-'), header.substr(0, 71), header.substr(0, 4), std::string(), "xtmh" + header.substr(4)}) {
        const Result r = run_messages({good, raw(data), good});
        EXPECT_THAT(r.conns, ElementsAre(kBind + sent + sent));
        const std::string size = std::to_string(data.size());
        EXPECT_TRUE(in_order(r,
                             {"4 rcv len[" + size +
                              "] | 1 msg no xmit header | 1 ProcMsg[-1] | procIsExist(PID) | KVR_QueOpen(DLQ) | " +
                              "KVR_QueMsgPut(" + size + ")"},
                             "LHS"));
    }
}

// A host may tell a length that it did not deliver: nothing outside the buffer is sent or put.
TEST_F(Route, LengthOutsideTheBufferIsNeverFollowed) {
    Message cut = message(std::string(2098376 - 72, 'c'));
    cut.length = 2098377;
    Message none = raw("");
    none.length = -1;
    const Result r = run_messages({cut, none, message("x")});
    EXPECT_THAT(r.conns, ElementsAre(kBind + data_frame("x")));
    const std::string dead = " | procIsExist(PID) | ";
    EXPECT_TRUE(
        in_order(r,
                 {"4 rcv len[2098377] | 1 message of [2098377] bytes exceeds the buffer of [2098376]: not sent" + dead +
                      "KVR_QueOpen(DLQ) | KVR_QueMsgPut(2098376)",
                  "4 rcv len[-1] | 1 msg no xmit header | 1 ProcMsg[-1]" + dead + "KVR_QueMsgPut(0)"},
                 "LHS"));
}

TEST_F(Route, OnlyIdentifierAndDestinationOfTheHeaderCount) {
    Message msg = message("body");
    msg.data.replace(4, 4, "\xff\xff\xff\xff", 4);
    msg.data.replace(40, 32, std::string(32, '?'));
    EXPECT_THAT(run_messages({msg}).conns, ElementsAre(kBind + data_frame("body")));
}

TEST_F(Route, FourAttemptsEachOnABoundConnection) {
    for (const int failures : {1, 3, 4}) {
        host().hooks["write"] = failing_of(5, failures, 2, ECONNRESET);
        const Result r = run_messages({message("hello"), message("next")});
        Lines conns(static_cast<size_t>(failures), kBind + data_frame("hello").substr(0, 347));
        conns.push_back(kBind + (failures == 4 ? "" : data_frame("hello")) + data_frame("next"));
        EXPECT_EQ(r.conns, conns) << r.dump();
        EXPECT_EQ(r.count("1 ChlSndData len[5] error[-201]"), failures);
        EXPECT_EQ(r.count("sleep("), 0);
        EXPECT_EQ(r.count("KVR_QueMsgPut(77)"), failures == 4 ? 1 : 0);
        if (failures == 4) { // the watcher's copy of the socket would keep the half message open at the receiver
            EXPECT_TRUE(in_order(r,
                                 {"1 ChlSndData len[5] error[-201] | procIsExist(W4) | procSndSig2Proc(W4 9) | "
                                  "5 waitpid W4 begin | waitpid() | 5 waitpid W4 end | 1 ProcMsg[-1]"},
                                 "LHS"));
        }
    }
}

TEST_F(Route, DeadLetterQueueIsOpenedOnceAndItsFailuresAreTold) {
    const struct {
        const char* deadq;
        Hook open;
        std::string first, second; ///< what happens to two messages without a header
    } cases[] = {
        {"DLQ", {}, "KVR_QueOpen(DLQ) | KVR_QueMsgPut(3)", "KVR_QueMsgPut(4)"},
        {"", {}, "1 not set dead queue", "1 not set dead queue"},
        {"DLQ", failing(-9, 2, 2), "KVR_QueOpen(DLQ) | 1 KVR_QueOpen[DLQ] return[-9]",
         "KVR_QueOpen(DLQ) | KVR_QueMsgPut(4)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        if (c.open) {
            host().hooks["KVR_QueOpen"] = c.open;
        }
        qmgr()["DEADQ"] = c.deadq;
        const Result r = run_messages({raw("bad"), raw("bad!"), message("good")});
        // With or without a dead-letter queue, a host that is being stopped is asked before the get uses the message
        // up.
        const std::string refused = "1 msg no xmit header | 1 ProcMsg[-1] | procIsExist(PID) | ";
        const std::string next = " | 5 --------------------start recv msg----------------------";
        EXPECT_TRUE(in_order(
            r, {"4 rcv len[3] | " + refused + c.first + next, "4 rcv len[4] | " + refused + c.second + next}, "LH"));
        EXPECT_EQ(r.conns.back(), kBind + data_frame("good"));
    }
}

TEST_F(Route, FailedGetOrNetworkStartEndsTheProcess) {
    const GetStep get_fails = [](T_KAVRO_MD*, char*, int*) { return -7; };
    const std::pair<GetStep, Lines> cases[] = {
        {get_fails, {"KVR_QueMsgGet() | alarm(0) | 1 RecvIpcMsg error[-7]"}},
        {interrupted(SIGUSR2), {"sleep(3)", "1 SndrNetInit error[-1]"}},
    };
    for (const auto& [step, told] : cases) {
        host().hooks["sockGetHostIp"] = failing(-1, 2, 9, EHOSTUNREACH);
        host().get = {interrupted(SIGALRM), step};
        const Result r = run_channel();
        EXPECT_EQ(r.status, 1) << r.dump();
        EXPECT_TRUE(in_order(r, told, "LHS"));
    }
}

} // namespace
} // namespace kvr::test
