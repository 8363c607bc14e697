// SPDX-License-Identifier: MIT
// Definitions as operators make and see them, and the truth about channels that run, ran or never ran.
#include <csignal>

#include <gmock/gmock.h>
#include <sys/wait.h>

#include "kvr_program.h"
#include "store.h"

namespace kvr::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class KvrDefinition : public ::testing::Test {
  protected:
    void SetUp() override {
        (void)home_.done({"create", "EAST"});
        (void)home_.done({"define", "queue", "TO.WEST", "--descr", "for the west"});
    }

    ProgramHome home_;
};

TEST_F(KvrDefinition, ChannelsTakeAttributesInBothFormsAndGetDefaults) {
    (void)home_.done({"define", "channel", "east.west", "XMITQ=TO.WEST", "hbint=60", "--conname", "10.0.0.2(1414)"});
    json channel = home_.json({"show", "channel", "EAST.west"})[0];
    EXPECT_EQ(channel["name"], "EAST.WEST");
    EXPECT_EQ(channel["XMITQ"], "TO.WEST");
    EXPECT_EQ(channel["CONNAME"], "10.0.0.2(1414)");
    EXPECT_EQ(channel["HBINT"], "60");
    EXPECT_EQ(channel["CHLTYPE"], "SNDR");

    (void)home_.done({"set", "channel", "EAST.WEST", "SHORTRTY=3"});
    channel = home_.json({"show", "channel", "EAST.WEST"})[0];
    EXPECT_EQ(channel["SHORTRTY"], "3");
    EXPECT_EQ(channel["HBINT"], "60") << "set changes what is named only";

    (void)home_.done({"define", "channel", "EAST.WEST", "XMITQ=TO.WEST", "CONNAME=h", "--replace"});
    channel = home_.json({"show", "channel", "EAST.WEST"})[0];
    EXPECT_EQ(channel["HBINT"], "30") << "replace goes back to the defaults";
    EXPECT_EQ(channel["SHORTRTY"], "10");

    const ProgramResult missing = home_.run({"define", "channel", "C2", "XMITQ=LATER", "CONNAME=h"});
    EXPECT_EQ(missing.code, 0);
    EXPECT_THAT(missing.err, HasSubstr("kvr define queue LATER"));
}

TEST_F(KvrDefinition, ReplacingAQueueKeepsItsMessages) {
    (void)home_.done({"put", "TO.WEST", "x", "--dest", "D"});
    (void)home_.done({"define", "queue", "TO.WEST", "--descr", "new", "--replace"});
    const json queue = home_.json({"show", "queue", "TO.WEST"})[0];
    EXPECT_EQ(queue["description"], "new");
    EXPECT_EQ(queue["depth"], 1);
}

TEST_F(KvrDefinition, ThePassPhraseIsNeverShownAndPathsBecomeAbsolute) {
    const std::string pem = home_.file("cert.pem", "not checked here");
    const auto up = std::filesystem::relative(pem, std::filesystem::current_path());
    (void)home_.done({"set", "qmgr", "CERTFILE=" + up.native(), "--keypass-file", "-"}, "pass phrase\nrest\n");
    const json qmgr = home_.json({"show", "qmgr"});
    EXPECT_EQ(qmgr["CERTFILE"], pem);
    EXPECT_EQ(qmgr["KEYPASS"], "********");
    EXPECT_THAT(home_.done({"show"}), Not(HasSubstr("pass phrase")));
    EXPECT_EQ(Store::open(home_.path() / "EAST")->object_get("QMGR", "QMGR").at("KEYPASS"), "pass phrase");
    EXPECT_THAT(home_.run({"set", "qmgr", "DEADQ="}).err, HasSubstr("no dead-letter queue"));
}

TEST_F(KvrDefinition, DeletingTakesWhatItSaysAndAsksForMessages) {
    (void)home_.done({"define", "channel", "C", "XMITQ=TO.WEST", "CONNAME=h"});
    (void)home_.done({"delete", "channel", "C"});
    EXPECT_EQ(home_.json({"show", "channel"}).size(), 0U);
    (void)home_.done({"put", "TO.WEST", "x"});
    (void)home_.done({"delete", "queue", "TO.WEST", "--purge"});
    EXPECT_EQ(home_.json({"show", "queue"}).size(), 1U);
    (void)home_.done({"delete", "qmgr", "EAST", "--yes"});
    EXPECT_FALSE(std::filesystem::exists(home_.path() / "EAST"));
}

TEST_F(KvrDefinition, StatusTellsTheTruthAboutADeadProcess) {
    (void)home_.done({"define", "channel", "C", "XMITQ=TO.WEST", "CONNAME=h"});
    EXPECT_THAT(home_.done({"status"}), HasSubstr("never run"));
    EXPECT_THAT(home_.done({"stop", "C"}), HasSubstr("was not running"));
    const pid_t dead = ::fork();
    if (dead == 0) {
        ::_exit(0);
    }
    (void)::waitpid(dead, nullptr, 0);
    Store::open(home_.path() / "EAST")->object_add("CHS", "C", {{"PID", std::to_string(dead)}, {"STATUS", "RUNING"}});
    EXPECT_THAT(home_.done({"status", "c"}), HasSubstr(std::to_string(dead) + " gone"));
    const json status = home_.json({"status"})["channels"][0];
    EXPECT_EQ(status["state"], "RUNING");
    EXPECT_EQ(status["running"], false);
    EXPECT_EQ(status["stale"], true);
    EXPECT_THAT(home_.done({"stop", "C"}), HasSubstr("now says STOPED"));
    EXPECT_EQ(home_.json({"status"})["channels"][0]["state"], "STOPED");
}

TEST_F(KvrDefinition, AChannelRunsRefusesASecondWorkerAndStops) {
    (void)home_.done({"define", "channel", "C", "XMITQ=TO.WEST", "CONNAME=127.0.0.1(1)", "LONGTMR=3600", "SHORTRTY=0"});
    Child worker = in_background(home_, {"run", "C", "--plugin", KVR_PLUGIN});
    const auto state = [this] { return home_.json({"status"})["channels"][0]["state"]; };
    ASSERT_TRUE(wait_until([&state] { return state() == "RETRYING"; }));
    EXPECT_THAT(home_.done({"status"}), HasSubstr(std::to_string(worker.pid()) + " alive"));
    const ProgramResult second = home_.run({"run", "C", "--plugin", KVR_PLUGIN});
    EXPECT_EQ(second.code, 1);
    EXPECT_THAT(second.err, HasSubstr(std::to_string(worker.pid())));
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"delete", "channel", "C"}, {"delete", "qmgr", "EAST", "--yes"}}) {
        EXPECT_THAT(home_.run(arguments).err, HasSubstr("kvr stop C"));
    }
    EXPECT_THAT(home_.done({"stop", "C"}), HasSubstr("channel C stopped"));
    EXPECT_EQ(worker.result(), 0);
    EXPECT_EQ(state(), "STOPED");
    EXPECT_GT(std::filesystem::file_size(home_.path() / "EAST" / "log" / "C.log"), 0U);
}

TEST_F(KvrDefinition, RunRefusesWhatCouldNotWorkAndWarnsLoudly) {
    (void)home_.done({"define", "channel", "C", "XMITQ=TO.WEST", "CONNAME=127.0.0.1(1)", "SSLCAUTH=ENABLE"});
    const auto run = [this] { return home_.run({"run", "C", "--plugin", KVR_PLUGIN}); };
    EXPECT_THAT(run().err, HasSubstr("kvr set qmgr CAFILE=FILE"));
    (void)home_.done({"set", "channel", "C", "SSLCAUTH=DISABLE", "SHORTRTY=0", "LONGRTY=0"});
    (void)home_.run({"set", "qmgr", "DEADQ="});
    const ProgramResult failed = run();
    EXPECT_EQ(failed.code, 1);
    EXPECT_THAT(failed.err, HasSubstr("no dead-letter queue"));
    EXPECT_THAT(failed.err, HasSubstr("C.log"));
}

} // namespace
} // namespace kvr::test
