// SPDX-License-Identifier: MIT
// What only the C linkage of the host's operations can get wrong: handles, the message in hand behind them, and errors
// that must not leave.
#include "kavro_ac.h"
#include "kavro_ac/kavro_ac_host.h"
#include "kavro_queue/kavro_queue_host.h"
#include "kavutil/stop_point.h"
#include "kavutil/unique_fd.h"
#include "store_fixture.h"
#include "support/loopback.h"

namespace kvr {
namespace {

class HostOpsTest : public StoreTest {
  protected:
    HostOpsTest() {
        ac_set_qmgr(folder_.path(), "QM");
        EXPECT_EQ(KVR_InitQmgrCtx(&context_, KVR_GetQmgrName()), 0);
        EXPECT_EQ(open("Q"), Errc{});
        got_.pOptData = &files_;
    }
    Errc open(std::string name) { return Errc{KVR_QueOpen(context_.hQueDB, name.data(), &handle_, 0)}; }
    Errc close(T_KVR_QUE_OBJ_HANDLE handle) { return Errc{KVR_QueClose(context_.hQueDB, nullptr, handle, 0)}; }
    Errc get(T_KVR_QUE_OBJ_HANDLE handle) {
        length_ = sizeof buffer_;
        return Errc{KVR_QueMsgGet(context_.hQueDB, handle, &got_, nullptr, buffer_, &length_)};
    }
    /// Puts what the last get returned.
    Errc put(T_KVR_QUE_OBJ_HANDLE handle) {
        return Errc{KVR_QueMsgPut(context_.hQueDB, handle, &got_, nullptr, buffer_, length_)};
    }

    T_KAVRO_QMGR_CTX context_{};
    T_KVR_QUE_OBJ_HANDLE handle_ = nullptr; ///< of the queue that was opened last
    T_KAVRO_MD got_{};
    T_KAVRO_ACCESSORIES_MD files_{};
    char buffer_[64];
    int length_ = 0;
};
KVR_OVER_EVERY_ENGINE(HostOpsTest);

TEST_P(HostOpsTest, AHandleIsGoodUntilItsCloseWhichUsesUpUnlessTheMessageWasGivenBack) {
    put_all({"1", "2"});
    EXPECT_EQ(get(handle_), Errc{});
    EXPECT_EQ(close(handle_), Errc{});
    EXPECT_EQ(shown(), Texts{"2"});
    EXPECT_EQ(open("Q"), Errc{});
    EXPECT_EQ(get(handle_), Errc{});
    queue_give_back(); // stopped in the middle of the message
    EXPECT_EQ(close(handle_), Errc{});
    EXPECT_EQ(shown(), Texts{"2"});
    for (T_KVR_QUE_OBJ_HANDLE stale : {handle_, T_KVR_QUE_OBJ_HANDLE{}, T_KVR_QUE_OBJ_HANDLE{&length_}}) {
        EXPECT_THAT((std::vector{close(stale), get(stale), put(stale)}), testing::Each(Errc::kNotOpen));
    }
    context_.hQueDB = &length_;
    EXPECT_EQ(open("Q"), Errc::kNotOpen);
    EXPECT_EQ(Errc{KVR_InitQmgrCtx(&context_, std::string("../QM").data())}, Errc::kInvalid);
}

TEST_P(HostOpsTest, AProcessThatWasToldNothingFindsItsQueueManagerByTheEnvironmentOrTheFolderItIsIn) {
    const std::string home = folder_.path();
    Store::create(folder_.path() / "OTHER", "OTHER", {}, GetParam());
    // KVR_HOME, KVR_QMGR, what the attach is given, and to whom it belongs then; "": it fails.
    const std::tuple<const char*, const char*, std::string, const char*> cases[] = {
        {home.c_str(), "QM", "", "QM"}, {home.c_str(), "QM", "OTHER", "OTHER"},
        {home.c_str(), "", "", ""},     {"", "", "QM", "QM"},
        {"", "NONE", "QM", "QM"},       {"/", "QM", "QM", ""},
        {home.c_str(), "NONE", "", ""},
    };
    for (const auto& [at, qmgr, given, belongs] : cases) {
        const auto attach = [&, at = at, qmgr = qmgr, given = given, belongs = std::string(belongs)]() mutable {
            ac_set_qmgr({}, "");
            ::setenv("HOME", "/nowhere", 1);
            ::setenv("KVR_HOME", at, 1);
            ::setenv("KVR_QMGR", qmgr, 1);
            T_KAVRO_QMGR_CTX context{};
            const bool done = ::chdir(home.c_str()) == 0 && KVR_InitQmgrCtx(&context, given.data()) == 0;
            return done == !belongs.empty() && (!done || KVR_GetQmgrName() == belongs) ? 0 : 1;
        };
        EXPECT_EQ(test::Child::fork_off(attach).result(), 0) << at << " " << qmgr << " " << given;
    }
}

TEST_P(HostOpsTest, OptionsDoWhatTheirNamesSayOrAreRefused) {
    const auto with = [&](T_KAVRO_GMO options) {
        length_ = sizeof buffer_;
        return Errc{KVR_QueMsgGet(context_.hQueDB, handle_, &got_, &options, buffer_, &length_)};
    };
    EXPECT_EQ(with({{}, 1, 0, 20, 0, 0}), Errc::kNone);
    std::signal(SIGALRM, [](int) {});
    ::ualarm(1000, 1000);
    EXPECT_EQ(with({{}, 1, 0, 3600000, 0, 0}), Errc::kInterrupted);
    ::ualarm(0, 0);
    put_all({"1", "2"});
    EXPECT_EQ(with({{}, 1, 0, 60000, 0, 0}), Errc{});
    for (const T_KAVRO_GMO refused :
         {T_KAVRO_GMO{{}, 1, 1, 0, 0, 0}, {{}, 1, 0, -1, 0, 0}, {{}, 1, 0, 0, 1, 0}, {{}, 1, 0, 0, 0, 1}}) {
        EXPECT_EQ(with(refused), Errc::kInvalid);
    }
    for (T_KAVRO_PMO refused : {T_KAVRO_PMO{{}, 1, 1, 0}, {{}, 1, 0, 1}}) {
        EXPECT_EQ(Errc{KVR_QueMsgPut(context_.hQueDB, handle_, &got_, &refused, buffer_, length_)}, Errc::kInvalid);
    }
    EXPECT_EQ(with({{}, 1, 0, 0, 0, 0}), Errc{});
    EXPECT_EQ(buffer_[0], '2');
}

TEST_P(HostOpsTest, DeadLetterPutTakesTheMessageAlongOrItIsHeld) {
    StoreTest::put("0", {"/f"});
    put_all({"1", "2", "3", "4"});
    const auto source = handle_;
    EXPECT_EQ(open("DEAD"), Errc{});
    const auto dead = handle_;
    const std::pair<Errc, std::function<Errc()>> ways[] = {
        {Errc{}, [&] { return put(dead); }},
        {Errc::kNotFound, [&] { return open("NONE"); }},
        {Errc::kNotOpen, [&] { return put(nullptr); }},
        {Errc::kInvalid, [&] { return got_.iMsgFlags = KVR_MSGFLAG_ACCESSORIES, files_.iNum = 31, put(dead); }}};
    for (const auto& [code, way] : ways) {
        EXPECT_EQ(get(source), Errc{});
        EXPECT_EQ(way(), code);
    }
    EXPECT_EQ(close(source), Errc{});
    EXPECT_EQ(shown(), (Texts{"1!", "2!", "3!", "4"}));
    EXPECT_EQ(shown("DEAD"), Texts{"0&"});
}

/// What the channel's status says one after the other.
void say(const std::vector<const char*>& words) {
    for (const char* word : words) {
        line_status({{"STATUS", word}});
    }
}

TEST_P(HostOpsTest, AMessageThatOnlyLinesFailedIsGivenBackAndComesFirst) {
    const std::string file = folder_.path() / "file";
    std::ofstream(file) << "x";
    // `words`: after it was handed out.
    const std::tuple<int, Texts, std::vector<const char*>, bool> cases[] = {
        {8, {}, {"RETRYING", "BINDING", "RUNING"}, false},
        {8, {file}, {"RETRYING", "BINDING"}, false},
        {8, {}, {}, true},
        {8, {}, {"RETRYING"}, true},
        {8, {file + ".gone"}, {"RETRYING", "RUNING"}, true},
        {8, {folder_.path()}, {"RETRYING", "RUNING"}, true},
        {0, {}, {"RETRYING", "RUNING"}, true},
    };
    EXPECT_EQ(open("DEAD"), Errc{});
    const auto dead_queue = handle_;
    for (const auto& [trial, files, words, dead] : cases) {
        line_settings({"C", {}, std::chrono::seconds(trial)});
        EXPECT_EQ(open("Q"), Errc{});
        say({"RUNING"});
        StoreTest::put("1", files);
        StoreTest::put("2");
        EXPECT_EQ(get(handle_), Errc{});
        say(words);
        EXPECT_EQ(put(dead_queue), Errc{});
        EXPECT_EQ(shown(), dead ? Texts{"2"} : Texts({files.empty() ? "1" : "1&", "2"}))
            << testing::PrintToString(words);
        line_settings({});
        EXPECT_EQ(get(handle_), Errc{});
        EXPECT_EQ(buffer_[0], dead ? '2' : '1');
        EXPECT_TRUE(dead || get(handle_) == Errc{});
        EXPECT_EQ(close(handle_), Errc{});
    }
}

TEST_P(HostOpsTest, TheWaitForALineThatLastsEndsWithAStopOrTheReportOfALoss) {
    put_all({"1"});
    EXPECT_EQ(close(handle_), Errc{});
    const auto wait_long = [&](bool in_hand, bool lost) {
        return fork_user([&, in_hand, lost] {
            line_settings({"C", {}, std::chrono::hours(1)});
            stop_set_hook([](StopPlace at) { ::_exit(at == StopPlace::kMidMessage ? 2 : 1); });
            if (KVR_InitQmgrCtx(&context_, KVR_GetQmgrName()) < 0 || open("Q") != Errc{} || get(handle_) != Errc{}) {
                return 9;
            }
            if (lost) {
                test::mask_signal(SIG_BLOCK, SIGUSR2);
                ::raise(SIGUSR2);
            }
            if (!in_hand) {
                queue_give_back();
            }
            test::mask_signal(SIG_UNBLOCK, SIGTERM);
            for (int i = 0; i < 20; ++i) {
                say({"RETRYING", "RUNING"}); // each has to last longer
            }
            return lost ? 3 : 9 + static_cast<int>(get(handle_));
        });
    };
    std::signal(SIGTERM, [](int) { stop_request(); });
    test::mask_signal(SIG_BLOCK, SIGTERM);
    EXPECT_EQ(wait_long(false, false).result_under(SIGTERM), 1);
    EXPECT_EQ(wait_long(true, false).result_under(SIGTERM), 2);
    EXPECT_EQ(wait_long(true, true).result(), 3);
    test::mask_signal(SIG_UNBLOCK, SIGTERM);
}

/// A connection, and how a status tells of it while it is up.
struct Line {
    Line() {
        const int port = test::bind_to_loopback(peer.get());
        status["REMOTEPORT"] = std::to_string(port);
        status["LOCALPORT"] = std::to_string(test::bind_to_loopback(own.get()));
        EXPECT_TRUE(::listen(peer.get(), 1) == 0 && test::connect_to_loopback(own.get(), port));
    }
    UniqueFd peer{::socket(AF_INET, SOCK_STREAM, 0)};
    UniqueFd own{::socket(AF_INET, SOCK_STREAM, 0)};
    Attributes status{{"STATUS", "RUNING"}, {"LOCALIP", "127.0.0.1"}, {"REMOTEIP", "127.0.0.1"}};
};

TEST_P(HostOpsTest, WhatWentOverALineComesAgainUnlessItEndedInOrder) {
    const LineSettings keeps{"C", {KeepLimits{std::chrono::hours(1), 1U << 20U}, {{}, 1U << 20U}, true}};
    // `words`: at the end.
    const std::tuple<bool, std::vector<const char*>, Texts> cases[] = {
        {false, {"STOPED"}, {"3"}},
        {true, {"STOPED"}, {"1~", "2~", "3"}}, // the stop came before the channel told of the loss
        {true, {"RETRYING", "STOPED"}, {"1~", "2~", "3"}},
        {false, {}, {"1~", "2~", "3"}}, // at the next start
    };
    EXPECT_EQ(close(handle_), Errc{});
    for (const auto& [lost, words, left] : cases) {
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
        put_all({"1", "2", "3"});
        line_settings(keeps);
        EXPECT_EQ(open("Q"), Errc{});
        Line line;
        line_status(line.status);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(get(handle_), Errc{});
        }
        queue_give_back();
        if (lost) {
            line.peer.reset();
        }
        say(words);
        EXPECT_EQ(close(handle_), Errc{});
        line_settings(keeps);
        static_cast<void>(store_->drain("Q", keeps.drain));
        EXPECT_EQ(shown(), left) << testing::PrintToString(words);
    }
}

TEST_P(HostOpsTest, ARepeatWhoseFileIsGoneIsNoDeadLetter) {
    const std::string file = folder_.path() / "file";
    line_settings({"C", {KeepLimits{std::chrono::hours(1), 1U << 20U}, {{}, 1U << 20U}, true}});
    StoreTest::put("1", {file});
    put_all({"2", "3"});
    say({"RUNING"});
    EXPECT_EQ(get(handle_), Errc{});
    EXPECT_EQ(get(handle_), Errc{});
    say({"RETRYING", "RUNING"});
    const auto source = handle_;
    EXPECT_EQ(open("DEAD"), Errc{});
    EXPECT_EQ(get(source), Errc{});
    EXPECT_EQ(buffer_[0], '1') << "after the one that was in hand";
    EXPECT_EQ(put(handle_), Errc{});
    EXPECT_EQ(get(source), Errc{});
    EXPECT_EQ(buffer_[0], '3');
    EXPECT_EQ(shown("DEAD"), Texts{});
    EXPECT_EQ(shown(), Texts{"3*"});
}

} // namespace
} // namespace kvr
