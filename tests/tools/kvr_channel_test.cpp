// SPDX-License-Identifier: MIT
// Definitions as operators make and see them, and the truth about channels that run, ran or never ran.
#include <csignal>

#include <fcntl.h>

#include "kvr_program.h"
#include "store/store.h"
#include "support/peer.h"

namespace kvr::test {
namespace {

using nlohmann::json;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

class KvrChannel : public ::testing::Test {
  protected:
    KvrChannel() {
        home_.done("create EAST");
        home_.done("define queue TO.WEST --descr 'for the west'");
    }
    /// Defines C with no listener at its address.
    void define(const std::string& attributes = "LONGTMR=3600 SHORTRTY=0") {
        home_.done("define channel C XMITQ=TO.WEST CONNAME='127.0.0.1(1)' " + attributes);
    }
    [[nodiscard]] std::shared_ptr<Store> store() const { return Store::open(home_.path() / "EAST"); }
    /// Its status and process as recorded.
    [[nodiscard]] std::string recorded() const {
        const auto names = store()->object_names("CHS");
        const Attributes status = names.empty() ? Attributes{} : store()->object_get("CHS", "C");
        return names.empty() ? "" : status.at("STATUS") + " " + status.at("PID");
    }
    [[nodiscard]] std::string status() const { return home_.done("status"); }
    [[nodiscard]] ProgramResult run(const std::string& channel = "C", const std::string& plugin = KVR_PLUGIN) const {
        return home_.run("run " + channel + " --plugin " + plugin);
    }
    [[nodiscard]] Child start(const std::function<void()>& prepare = [] {}) const {
        return home_.in_background(std::string("run C --plugin ") + KVR_PLUGIN, prepare);
    }
    /// A worker that has found its listener missing and waits.
    [[nodiscard]] Child running(const std::function<void()>& prepare = [] {}) const {
        Child worker = start(prepare);
        const std::string wanted = "RETRYING " + std::to_string(worker.pid());
        EXPECT_TRUE(wait_until([&] { return recorded() == wanted; })) << recorded();
        return worker;
    }
    /// A process that is in the middle of opening the store, and stays there.
    [[nodiscard]] Child frozen_opener() const {
        Child child = Child::fork_off([&] {
            const int fd = open((home_.path() / "EAST" / "store" / "open.lock").c_str(), O_RDWR);
            struct flock lock {};
            lock.l_type = F_WRLCK;
            return fcntl(fd, F_OFD_SETLK, &lock) == 0 ? raise(SIGSTOP) : 1;
        });
        siginfo_t how{};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &how, WSTOPPED | WEXITED | WNOWAIT), 0);
        return child;
    }

    ProgramHome home_;
};

TEST_F(KvrChannel, DefinitionsAreMadeChangedReplacedAndDeleted) {
    const auto attribute = [this](const char* name) { return home_.json("show channel EAST.west")[0][name]; };
    home_.done("define channel east.west XMITQ=TO.WEST hbint=60 --conname '10.0.0.2(1414)'");
    EXPECT_EQ(attribute("CONNAME"), "10.0.0.2(1414)");
    home_.done("set channel EAST.WEST SHORTRTY=3");
    EXPECT_EQ(attribute("SHORTRTY").get<std::string>() + attribute("HBINT").get<std::string>(), "360");
    home_.done("define channel EAST.WEST XMITQ=TO.WEST CONNAME=h --replace");
    EXPECT_EQ(attribute("SHORTRTY").get<std::string>() + attribute("HBINT").get<std::string>(), "1030") << "defaults";
    EXPECT_THAT(home_.run("define channel C2 XMITQ=LATER CONNAME=h").err, HasSubstr("kvr define queue LATER"));
    const std::string pem = home_.file("cert.pem", "");
    home_.done("set qmgr CERTFILE=cert.pem");
    EXPECT_EQ(home_.json("show qmgr")["CERTFILE"], pem) << "paths become absolute";

    home_.done("put TO.WEST x --dest D");
    home_.done("define queue TO.WEST --descr new --replace");
    EXPECT_EQ(home_.json("show queue TO.WEST")[0]["description"], "new");
    EXPECT_EQ(home_.json("show queue TO.WEST")[0]["depth"], 1);
    home_.done("delete channel C2");
    home_.done("delete channel EAST.WEST");
    home_.done("delete queue TO.WEST --purge");
    EXPECT_EQ(home_.json("show queue").size() + home_.json("show channel").size(), 1U);
    {
        const auto open_here = store();
        EXPECT_THAT(home_.run("delete qmgr EAST --yes").err,
                    HasSubstr("is open in process " + std::to_string(getpid()) + " ("));
    }
    home_.done("delete qmgr EAST --yes");
    EXPECT_FALSE(std::filesystem::exists(home_.path() / "EAST"));
}

TEST_F(KvrChannel, StatusTellsTheTruthAboutADeadProcess) {
    define();
    EXPECT_THAT(status(), HasSubstr("never run"));
    EXPECT_THAT(home_.done("stop C"), HasSubstr("was not running"));
    Child dead = Child::fork_off([] { return 0; });
    const std::string pid = std::to_string(dead.pid());
    dead.result();
    store()->object_add("CHS", "C", {{"PID", pid}, {"STATUS", "RUNING"}});
    EXPECT_THAT(status(), HasSubstr(pid + " gone"));
    const json shown = home_.json("status")["channels"][0];
    EXPECT_EQ(shown["running"], false);
    EXPECT_EQ(shown["stale"], true);
    home_.done("stop C");
    EXPECT_EQ(recorded(), "STOPED -1");
    EXPECT_THAT(status(), HasSubstr("C: failed: its process ended without a word\n"));
}

TEST_F(KvrChannel, ARunningOneRefusesASecondWorkerAndItsDeletion) {
    define();
    // A status that blocks the start: it names a process that lives, and is none of a channel.
    store()->object_add("CHS", "C", {{"PID", std::to_string(getpid())}, {"STATUS", "RUNING"}});
    Child worker = running();
    EXPECT_THAT(contents(home_.path() / "EAST" / "log" / "C.log"),
                HasSubstr("pid[" + std::to_string(getpid()) + "] is stale"));
    EXPECT_THAT(status(), AllOf(HasSubstr(std::to_string(worker.pid()) + " alive"),
                                HasSubstr("C: RETRYING 127.0.0.1(1), every 3600 s, 1000000 long retries\n"),
                                Not(HasSubstr("changed since"))));
    EXPECT_THAT(home_.done("set channel C CONNAME='127.0.0.1(2)'"), HasSubstr("kvr stop C"));
    home_.done("define queue NEXT");
    home_.done("set channel C XMITQ=NEXT");
    EXPECT_THAT(status(), AllOf(HasSubstr("RETRYING 127.0.0.1(1),"),
                                HasSubstr("changed since: XMITQ=NEXT; in effect at its next"),
                                HasSubstr("changed since: CONNAME=127.0.0.1(2); in effect at its next")));
    EXPECT_EQ(home_.json("status")["channels"][0]["transmission_queue"]["name"], "TO.WEST");
    EXPECT_THAT(run().err, AllOf(HasSubstr(std::to_string(worker.pid())), Not(HasSubstr("starts"))));
    for (const char* deletion : {"delete channel C", "delete queue TO.WEST", "delete qmgr EAST --yes"}) {
        EXPECT_THAT(home_.run(deletion).err, HasSubstr("kvr stop C"));
    }
    EXPECT_THAT(home_.done("stop C"), HasSubstr("channel C stopped"));
    EXPECT_EQ(worker.result(), 0);
}

TEST_F(KvrChannel, AWorkerEndsAtAStopWhateverItsParentLeftAndWhateverHoldsItUp) {
    define();
    Child worker = running([] {
        std::signal(SIGCHLD, SIG_IGN);
        std::signal(SIGINT, SIG_DFL); // the tests may run where it is ignored
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        umask(0);
    });
    const std::string facts = contents("/proc/" + std::to_string(worker.pid()) + "/status");
    EXPECT_THAT(facts, HasSubstr("Umask:\t0077"));
    const std::uint64_t ignored = std::stoull(facts.substr(facts.find("SigIgn:") + 8), nullptr, 16);
    EXPECT_EQ(ignored >> (SIGCHLD - 1) & 1, 0U);
    kill(worker.pid(), SIGINT);
    EXPECT_EQ(worker.result(), 0);
    EXPECT_EQ(recorded(), "STOPED -1");
    EXPECT_EQ(home_.json("status")["channels"][0]["failure"], nullptr);

    const auto stopped_before_its_first_step = [this] {
        return start([] {
                   sigset_t held;
                   sigemptyset(&held);
                   sigaddset(&held, SIGTERM);
                   sigprocmask(SIG_BLOCK, &held, nullptr);
                   raise(SIGTERM);
               })
            .result();
    };
    EXPECT_EQ(stopped_before_its_first_step(), 0);
    {
        Child runs = running();
        const Child frozen = frozen_opener();
        EXPECT_THAT(home_.run("stop C").err,
                    HasSubstr("channel C stopped (process " + std::to_string(runs.pid()) + "), but its status"));
        EXPECT_EQ(runs.result(), 0);
        EXPECT_EQ(stopped_before_its_first_step(), 0);
    }
    EXPECT_EQ(run("C", STOPPING_PLUGIN).code, 0) << "a stop made the channel fail: that is no failure";
    Child deaf = running();
    kill(deaf.pid(), SIGSTOP);
    EXPECT_THAT(home_.done("stop C --timeout 0.1"), HasSubstr("was killed"));
    EXPECT_EQ(deaf.result(), -SIGKILL);
    EXPECT_EQ(recorded(), "STOPED -1");
}

TEST_F(KvrChannel, RunRefusesWhatCouldNotWork) {
    define("SSLCAUTH=ENABLE");
    store()->object_add("CHL", "RECEIVER", {{"CHLTYPE", "RCVR"}, {"XMITQ", "TO.WEST"}});
    store()->object_add("CHL", "NOQ", {{"CHLTYPE", "sndr"}});
    store()->object_add("CHL", "BADQ", {{"CHLTYPE", "SNDR"}, {"XMITQ", "NOWHERE"}});
    store()->object_add("CHL", "GOOD", {{"CHLTYPE", "SNDR"}, {"XMITQ", "TO.WEST"}});
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"C", KVR_PLUGIN, "kvr set qmgr CAFILE=FILE"},
        {"RECEIVER", KVR_PLUGIN, "has type 'RCVR'"},
        {"NOQ", KVR_PLUGIN, "no transmission queue"},
        {"BADQ", KVR_PLUGIN, "queue 'NOWHERE'"},
        {"NONE", KVR_PLUGIN, "kvr define channel NONE"},
        {"GOOD", home_.file("plugin.so", "no library"), "cannot be loaded"},
        {"GOOD", NO_PLUGIN, "OnPlugLoad"},
        {"GOOD", REFUSING_PLUGIN, "refused to load: result -1"}};
    for (const auto& [channel, plugin, reason] : cases) {
        const ProgramResult refused = run(channel, plugin);
        EXPECT_EQ(refused.code, 1) << reason;
        EXPECT_THAT(refused.err, HasSubstr(reason));
    }
    EXPECT_EQ(recorded(), "");
}

TEST_F(KvrChannel, AnEventThatFailsGivesTheChannelBack) {
    define("SHORTRTY=0 LONGRTY=0");
    EXPECT_THAT(home_.run("set qmgr DEADQ=").err, HasSubstr("no dead-letter queue"));
    const ProgramResult failed = run();
    EXPECT_EQ(failed.code, 1);
    EXPECT_THAT(failed.err, AllOf(HasSubstr("no dead-letter queue"), HasSubstr("result -10002"), HasSubstr("C.log")));
    EXPECT_EQ(recorded(), "STOPED -1");
    EXPECT_THAT(status(), ContainsRegex("C: failed: .* UTC, could not .*result -10002.*/log/C.log "));
    {
        const Peer peer({}, [](PeerConnection& line) { line.read_all(); });
        const auto getter = store()->drain("TO.WEST"); // the channel connects, and its first get fails
        home_.done("set channel C CONNAME='127.0.0.1(" + std::to_string(peer.port()) + ")'");
        EXPECT_EQ(run().code, 1);
        EXPECT_THAT(status(), ContainsRegex(" gone .*C: failed: .* could not go on; .*/log/C.log "));
    }
    home_.done("set channel C LONGRTY=1000 CONNAME='127.0.0.1(1)'");
    Child worker = running();
    EXPECT_THAT(status(), Not(HasSubstr("failed")));
    home_.done("stop C");
    EXPECT_THAT(status(), Not(HasSubstr("failed")));
}

} // namespace
} // namespace kvr::test
