// SPDX-License-Identifier: MIT
// Workers as real processes on a real store, with a plug-in that stays in the state that a case names.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel_status.h"
#include "children.h"
#include "context.h"
#include "store.h"
#include "support/folder.h"

namespace {

namespace fs = std::filesystem;
using kvr::StopResult;
using kvr::test::Child;
using kvr::test::Signposts;
using testing::HasSubstr;
using testing::Not;

constexpr char kPassPhrase[] = "very-secret-phrase";

class Worker : public testing::Test {
  protected:
    Worker() {
        kvr::Store::create(home_ / "QM1", "QM1", kvr::Settings{});
        const auto store = open();
        store->queue_define("XQ", "");
        store->queue_define("DLQ", "");
        const kvr::Attributes qmgr{{"DEADQ", "DLQ"}, {"KEYPASS", kPassPhrase}};
        store->object_add("QMGR", "QMGR", qmgr);
        store->object_add("CHL", "C1", {{"CHLTYPE", "SNDR"}, {"XMITQ", "XQ"}});
    }
    /// The store is open for as long as the test looks at it only: workers are separate processes.
    [[nodiscard]] std::shared_ptr<kvr::Store> open() const { return kvr::Store::open(home_ / "QM1"); }

    void put_message() const {
        T_KAVRO_MD descriptor{};
        open()->put("XQ", kvr::OutgoingMessage{&descriptor, {}, std::string_view("data")});
    }

    [[nodiscard]] std::uint64_t depth() const { return open()->queue_info("XQ").depth; }

    [[nodiscard]] std::string status_of(const std::string& channel) const {
        const kvr::ChannelStatus status = kvr::channel_status(*open(), channel);
        return status.state + " " + std::to_string(status.recorded_pid);
    }

    /// Starts a worker; `prepare` runs in the child first.
    Child start(
        const std::string& state, const std::string& channel = "C1", const std::string& plugin = FAKE_PLUGIN,
        const std::function<void()>& prepare = [] {}) {
        return Child::fork_off([&] {
            setenv("KVR_TEST_STATE", state.c_str(), 1);
            setenv("KVR_TEST_POSTS", std::to_string(posts_.write_end()).c_str(), 1);
            const int errors = ::open((home_ / "errors").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(errors, STDERR_FILENO);
            prepare();
            const std::string log = (home_ / "log").string();
            execl(WORKER_MAIN, WORKER_MAIN, home_.c_str(), "QM1", channel.c_str(), plugin.c_str(), log.c_str(),
                  nullptr);
            return 4;
        });
    }

    /// Starts a worker and waits until it is in its state.
    Child run(const std::string& state) {
        Child worker = start(state);
        EXPECT_TRUE(posts_.passed('R')) << state << ": " << errors() << log();
        return worker;
    }

    [[nodiscard]] std::string errors() const { return kvr::test::contents(home_ / "errors"); }
    [[nodiscard]] std::string log() const { return kvr::test::contents(home_ / "log"); }

    kvr::test::TemporaryFolder folder_;
    fs::path home_ = folder_.path();
    Signposts posts_;
};

TEST_F(Worker, StopsForEachSignalAndKeepsTheMessageInHand) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        Child worker = run("waits in the get");
        kill(worker.pid(), signal);
        EXPECT_EQ(worker.result(), 0) << errors() << log();
        EXPECT_TRUE(posts_.passed('X'));
        EXPECT_EQ(status_of("C1"), "STOPED -1");
    }
    put_message();
    Child worker = run("gives up when interrupted");
    kill(worker.pid(), SIGTERM); // once: what it interrupts is the worker's affair
    EXPECT_EQ(worker.result(), 0) << errors() << log();
    EXPECT_EQ(depth(), 1U);
    EXPECT_THAT(log(), HasSubstr("pass[********]"));
    EXPECT_THAT(log(), Not(HasSubstr(kPassPhrase)));
}

TEST_F(Worker, StopAskedForBeforeItsFirstStepEndsItInOrder) {
    Child worker = start("waits in the get", "C1", FAKE_PLUGIN, [] {
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGTERM);
        sigprocmask(SIG_BLOCK, &held, nullptr);
        raise(SIGTERM);
    });
    EXPECT_EQ(worker.result(), 0) << errors() << log();
    EXPECT_EQ(status_of("C1"), "STOPED -1");
}

TEST_F(Worker, StopCommitsTheMessageThatWasDone) {
    put_message();
    Child worker = start("waits in the get");
    ASSERT_TRUE(posts_.passed('R'));
    ASSERT_TRUE(posts_.passed('R')) << "the message was not taken";
    kill(worker.pid(), SIGTERM);
    EXPECT_EQ(worker.result_under(SIGTERM), 0) << "more signals change nothing";
    EXPECT_EQ(depth(), 0U);
}

TEST_F(Worker, RefusesWhatCannotRun) {
    {
        const auto store = open();
        store->object_add("CHL", "RECEIVER", {{"CHLTYPE", "RCVR"}, {"XMITQ", "XQ"}});
        store->object_add("CHL", "NOQ", {{"CHLTYPE", "sndr"}});
        store->object_add("CHL", "BADQ", {{"CHLTYPE", "SNDR"}, {"XMITQ", "NOWHERE"}});
    }
    const std::string text_file = (home_ / "plugin.so").string();
    std::ofstream(text_file) << "no library";
    const struct {
        const char* channel;
        std::string plugin;
        const char* state;
        const char* reason;
    } cases[] = {
        {"nobody", FAKE_PLUGIN, "", "'NOBODY' is not defined"},
        {"../x", FAKE_PLUGIN, "", "is no channel name"},
        {"RECEIVER", FAKE_PLUGIN, "", "has type 'RCVR'"},
        {"NOQ", FAKE_PLUGIN, "", "no transmission queue"},
        {"BADQ", FAKE_PLUGIN, "", "queue 'NOWHERE'"},
        {"C1", "/nonexistent/plugin.so", "", "does not exist"},
        {"C1", text_file, "", "cannot be loaded"},
        {"C1", NO_PLUGIN, "", "OnPlugLoad"},
        {"C1", FAKE_PLUGIN, "cannot load", "refused to load: result -1"},
    };
    for (const auto& test : cases) {
        Child worker = start(test.state, test.channel, test.plugin);
        EXPECT_EQ(worker.result(), 2) << test.reason;
        EXPECT_THAT(errors(), HasSubstr(test.reason));
    }
    EXPECT_THAT(open()->object_names("CHS"), testing::IsEmpty());
}

TEST_F(Worker, GivesTheChannelBackWhenAnEventFails) {
    for (const char* state : {"cannot start", "fails at once"}) {
        Child worker = start(state);
        EXPECT_EQ(worker.result(), 1) << state;
        EXPECT_TRUE(posts_.passed('X'));
        EXPECT_EQ(status_of("C1"), "STOPED -1");
        EXPECT_THAT(errors(), HasSubstr("result -10002"));
    }
}

TEST_F(Worker, TakesOverAStatusWhoseProcessIdIsInUseAgain) {
    open()->object_add("CHS", "C1", {{"PID", std::to_string(getpid())}, {"STATUS", "RUNING"}});
    Child worker = run("waits in the get");
    EXPECT_EQ(status_of("C1"), "BINDING " + std::to_string(worker.pid()));
    EXPECT_THAT(log(), HasSubstr("pid[" + std::to_string(getpid()) + "] is stale"));
}

TEST_F(Worker, TakesNothingOverFromItsParent) {
    Child worker = start("inspects its process", "C1", FAKE_PLUGIN, [] {
        std::signal(SIGCHLD, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        umask(0);
        for (int fd = 0; fd <= 2; ++fd) {
            close(fd);
        }
    });
    EXPECT_TRUE(posts_.passed('C'));
}

TEST_F(Worker, IgnoresAHangUpUnderNohup) {
    Child worker = start("waits in the get", "C1", FAKE_PLUGIN, [] { std::signal(SIGHUP, SIG_IGN); });
    ASSERT_TRUE(posts_.passed('R'));
    kill(worker.pid(), SIGHUP);
    put_message(); // is taken, so the signal has come and gone
    EXPECT_TRUE(posts_.passed('R'));
    kill(worker.pid(), SIGTERM);
    EXPECT_EQ(worker.result(), 0);
}

TEST_F(Worker, OneThatIgnoresItsStopIsKilledAndItsStatusRepaired) {
    const auto store = open();
    Child deaf = run("is deaf");
    EXPECT_EQ(kvr::channel_status(*store, "C1").runner, deaf.pid());
    const kvr::StopOutcome outcome = kvr::stop_channel(*store, "C1", std::chrono::milliseconds(100));
    EXPECT_EQ(outcome.result, StopResult::kKilled);
    EXPECT_TRUE(outcome.repaired);
    EXPECT_EQ(deaf.result(), -SIGKILL);
    EXPECT_EQ(status_of("C1"), "STOPED -1");
}

TEST(Context, PutsTheChannelsNameWherePluginsLookForIt) {
    kvr::WorkerOptions options;
    options.home = "/h";
    options.qmgr = "QM1";
    options.plugin = "/p/libx.so";
    for (const char* log : {"", "/l"}) { // with one option entry more or less
        options.log_file = log;
        char program[] = "/bin/kvr";
        char* argv[] = {program, nullptr};
        kvr::Context context(options, "CH.ONE", 1, argv);
        const T_RTCORE_CONTEXT& record = context.record();
        const T_RTCORE_ARGV& arguments = record.tRTCoreArgv;
        ASSERT_EQ(arguments.iArgc, arguments.iOptc + 5);
        EXPECT_STREQ(arguments.tArg[arguments.iOptc + 4].psValue, "CH.ONE");
        EXPECT_EQ(record.tCmdArgs.argv, argv);
        EXPECT_STREQ(record.sProcName, "kvr");
        EXPECT_STREQ(record.sAppHome, "/h/QM1");
        EXPECT_NE(record.pfnLogPrint, nullptr);
    }
}

} // namespace
