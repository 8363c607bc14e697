// SPDX-License-Identifier: MIT
// Definitions as operators make and see them, and the truth about channels that run, ran or never ran.
#include "kvr_program.h"
#include "store/store.h"
#include "support/peer.h"

namespace kvr::test {

class KvrChannel : public ProgramTest {
  protected:
    KvrChannel() {
        done("define channel C XMITQ=Q CONNAME='127.0.0.1(1)' LONGTMR=3600 SHORTRTY=0"); // nobody listens there
    }
    [[nodiscard]] std::shared_ptr<Store> store() const { return Store::open(path() / "EAST"); }
    /// Its status and process as recorded.
    [[nodiscard]] std::string recorded() const {
        Attributes status = store()->object_names("CHS").empty() ? Attributes{} : store()->object_get("CHS", "C");
        return status["STATUS"] + " " + status["PID"];
    }
    /// A worker that has found its listener missing and waits; a command can run it.
    [[nodiscard]] Child running(const std::string& command = "") const {
        Child worker = start("exec " + command + " $KVR run C");
        EXPECT_TRUE(wait_until([&] { return recorded() == "RETRYING " + std::to_string(worker.pid()); })) << recorded();
        return worker;
    }
};

TEST_F(KvrChannel, DefinitionsAreMadeChangedReplacedAndDeleted) {
    const std::tuple<std::string, const char*, const char*, json> steps[] = {
        {"define channel east.west XMITQ=Q hbint=60 --conname h", "channel EAST.west", "/0/CONNAME", "h"},
        {"set channel EAST.WEST SHORTRTY=3", "channel EAST.WEST", "/0/HBINT", "60"},
        {"define channel EAST.WEST XMITQ=Q CONNAME=h --replace", "channel EAST.WEST", "/0/SHORTRTY", "10"},
        {"set qmgr CERTFILE=cert.pem", "qmgr", "/CERTFILE", file("cert.pem", "")},
        {"put Q x --dest D", "queue Q", "/0/depth", 1},
        {"define queue Q --descr new --replace", "queue Q", "/0/depth", 1},
        {"delete channel C", "channel", "/0/name", "EAST.WEST"},
        {"delete channel EAST.WEST", "channel", "", json::array()},
        {"delete queue Q --purge", "queue", "/0/name", "DEAD.LETTER.QUEUE"},
    };
    for (const auto& [line, what, at, value] : steps) {
        done(line);
        EXPECT_EQ(shown(std::string("show ") + what)[json::json_pointer(at)], value) << line;
    }
    done("delete qmgr EAST --yes");
}

TEST_F(KvrChannel, StatusTellsTheTruthAboutOneThatRunsAndWhatBecameOfIt) {
    EXPECT_THAT(done("status") + done("stop C"), AllOf(HasSubstr("never run"), HasSubstr("was not running")));
    Child worker = running();
    const std::string pid = std::to_string(worker.pid());
    done("define queue NEXT");
    done("set channel C XMITQ=NEXT CONNAME='127.0.0.1(2)'");
    EXPECT_THAT(done("status"), AllOf(HasSubstr(pid + " alive"), HasSubstr(" Q "),
                                      HasSubstr("C: RETRYING 127.0.0.1(1), every 3600 s, 1000000 long retries\n"),
                                      HasSubstr("changed since: XMITQ=NEXT; in effect at its next"),
                                      HasSubstr("changed since: CONNAME=127.0.0.1(2); in effect at its next")));
    EXPECT_THAT(run("run C").err, HasSubstr(pid));
    for (const char* deletion : {"delete channel C", "delete queue Q", "delete qmgr EAST --yes"}) {
        EXPECT_THAT(run(deletion).err, HasSubstr("kvr stop C"));
    }
    EXPECT_EQ(worker.result_under(SIGKILL), -SIGKILL);
    EXPECT_THAT(done("status"), HasSubstr(pid + " gone"));
    done("stop C");
    EXPECT_EQ(recorded(), "STOPED -1");
    EXPECT_THAT(done("status"), HasSubstr("C: failed: its process ended without a word\n"));
    const Child deaf = running();
    kill(deaf.pid(), SIGSTOP);
    EXPECT_THAT(done("stop C --timeout 0.1"), HasSubstr("was killed"));
    EXPECT_EQ(recorded(), "STOPED -1");
}

TEST_F(KvrChannel, AWorkerEndsAtAStopWhateverItsParentLeft) {
    const std::string awkward_parent = "env --block-signal --ignore-signal=CHLD --default-signal=INT";
    Child worker = running(awkward_parent);
    EXPECT_THAT(contents("/proc/" + std::to_string(worker.pid()) + "/status"),
                ContainsRegex("SigIgn:\t[0-9a-f]*[02468ace][0-9a-f]{4}\n"))
        << "children are not left to the system";
    kill(worker.pid(), SIGINT);
    EXPECT_EQ(worker.result(), 0);
    EXPECT_EQ(shown("status")["channels"][0]["failure"], nullptr);
    EXPECT_EQ(start("exec " + awkward_parent + " sh -c 'kill -TERM $$; exec $KVR run C'").result(), 0)
        << "stopped before its first step";
}

TEST_F(KvrChannel, OneThatFailsSaysSoUntilItStartsAgain) {
    done("set channel C LONGRTY=0");
    EXPECT_THAT(run("run C").err, AllOf(HasSubstr("result -10002"), HasSubstr("C.log")));
    EXPECT_EQ(recorded(), "STOPED -1");
    EXPECT_THAT(done("status"), ContainsRegex("C: failed: .* UTC, could not .*result -10002.*/log/C.log "));
    {
        const Peer peer({}, [](PeerConnection& line) { line.read_all(); });
        const auto getter = store()->drain("Q"); // the channel connects, and its first get fails
        done("set channel C CONNAME='127.0.0.1(" + std::to_string(peer.port()) + ")'");
        EXPECT_EQ(run("run C").code, 1);
    }
    EXPECT_THAT(done("status"), ContainsRegex(" gone .*C: failed: .* could not go on; .*/log/C.log "));
    done("set channel C LONGRTY=1000 CONNAME='127.0.0.1(1)'");
    const Child worker = running();
    EXPECT_THAT(done("status"), Not(HasSubstr("failed")));
}

} // namespace kvr::test
