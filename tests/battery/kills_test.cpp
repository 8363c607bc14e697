// SPDX-License-Identifier: MIT
// SIGKILL of every process at every point under load: the worker, those who put and get, the listener.
#include <algorithm>
#include <fstream>
#include <random>
#include <thread>

#include <lmdb.h>

#include "field.h"
#include "log_tail.h"
#include "proof.h"
#include "wait_marks.h"

namespace kvr::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kStepTime{300};

/// Lines of the worker's log that mark the steps of a message's road and of a connection's start.
constexpr std::array kSteps{
    "starting, plug-in",   "deadq[",         "begin connect",      "connect[127.0.0.1", "binding channel",
    "begin check line",    "start recv msg", "rcv len[",           "NETSTAT[",          "start write chl hdr",
    "start write chl msg", "main msg len[",  "start write attach", "begin send file[",  "send data[",
    "real size["};

class Kills : public ::testing::Test {
  protected:
    void sleep_up_to(int microseconds) {
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution(0, microseconds)(random_)));
    }

    static void kill_now(Child& child) {
        ::kill(child.pid(), SIGKILL);
        const int result = child.result();
        EXPECT_TRUE(result == -SIGKILL || result == 0) << result; // done before the kill came
    }

    /// Readers of a store whose process is gone, after some command has opened it.
    static int stale_readers(Field& field, const char* qmgr) {
        EXPECT_EQ(field.start({"--qmgr", qmgr, "show", "queue"}).result(), 0);
        // In a process of its own: a second environment of the same file would end the locks of this one's.
        return Child::fork_off([&] {
                   MDB_env* env = nullptr;
                   int dead = -1;
                   if (::mdb_env_create(&env) != 0 ||
                       ::mdb_env_open(env, (field.home() / qmgr / "store").c_str(), MDB_RDONLY, 0600) != 0 ||
                       ::mdb_reader_check(env, &dead) != 0) {
                       return 200;
                   }
                   return dead;
               })
            .result();
    }

    std::mt19937 random_{std::random_device{}()};
};

class WorkerKills : public Kills, public ::testing::WithParamInterface<Carrier> {
  protected:
    /// A killed worker's status still says that it runs.
    static void await_takeover(Field& field, const Child& worker) {
        await("the takeover",
              [&] { return field.status() == "RUNING" && field.status("PID") == std::to_string(worker.pid()); });
    }
};

INSTANTIATE_TEST_SUITE_P(Carriers, WorkerKills, kPlainAndTls, name_of_carrier);

TEST_P(WorkerKills, LoseNothingAndRepeatAtMostTheMessageInHand) {
    Field field(GetParam());
    Child listener = field.listen();
    const std::string mark = (field.home() / "log").native(); // in the command line of workers and watchers alone
    const std::size_t kills = rounds(16);
    std::size_t steps_hit = 0;
    std::chrono::milliseconds longest{0};
    for (std::size_t i = 0; i < kills && !HasFailure(); ++i) {
        field.put(MessageKind::kData, 20, 0, 20000);
        field.put_one_of_each();
        LogTail tail(mark);
        Child worker = field.run_channel();
        if (i % 3 == 0) { // the takeover, then anywhere
            await_takeover(field, worker);
            sleep_up_to(20000);
        } else if (i % 3 == 1) { // anywhere from the start on
            sleep_up_to(100000);
        } else {
            steps_hit += tail.comes(kSteps.at(i / 3 % kSteps.size()), kStepTime) ? 1U : 0U;
        }
        kill_now(worker);
        const auto killed = Clock::now();
        await("the end of the watcher", [&] { return processes_with(mark).empty(); });
        longest = std::max(longest, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed));
    }
    Child worker = field.run_channel();
    await_takeover(field, worker);
    EXPECT_GE(field.logged("is stale: that process does not run it; taken over"), 1U);
    field.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    // Not by a count of messages: repeats would stand for some that are still on their way.
    await("the listener to read all lines to their end",
          [&] { return field.journalled("end") == field.journalled("connect"); });
    field.expect_all_delivered(kills);
    EXPECT_EQ(stale_readers(field, kSender), 0);
    RecordProperty("kills", std::to_string(kills));
    RecordProperty("at a step", std::to_string(steps_hit));
    RecordProperty("repeats", std::to_string(field.arrived() - field.ledger().size()));
    RecordProperty("longest life of a watcher in ms", std::to_string(longest.count()));
}

TEST_F(Kills, OfTheWorkerKeepTheOrderOfWhatTheListenerHasNotRead) {
    Field field;
    Child listener = field.listen();
    {
        Child worker = field.run_channel();
        field.put(MessageKind::kData, 1, 10, 10);
        field.await_arrived(1);
        ::kill(listener.pid(), SIGSTOP);
        field.put(MessageKind::kData, 100, 10000, 10000);
        field.await_log("real size[", 101);
        kill_now(worker);
    }
    Child worker = field.run_channel();
    field.put(MessageKind::kData, 100, 1000, 1000);
    field.await_log("real size[", 201);
    ::kill(listener.pid(), SIGCONT);
    field.await_drained();
    field.await_arrived(201);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    await("both lines' ends", [&] { return field.journalled("end") == 2; });
    field.expect_all_delivered(1);
}

TEST_F(Kills, OfThePutterKeepWhatWasPut) {
    Field field;
    Child listener = field.listen();
    Child worker = field.run_channel();
    const std::size_t kills = rounds(10);
    constexpr std::uint64_t kEach = 5000;
    for (std::size_t i = 0; i < kills && !HasFailure(); ++i) {
        Child putter = field.start({"--qmgr", kSender, "put", kXmitQueue, "--dest", kTarget, "--seed",
                                    std::to_string(i), "--count", std::to_string(kEach), "--size", "0-200"});
        sleep_up_to(60000);
        kill_now(putter);
    }
    EXPECT_EQ(field.start({"--qmgr", kSender, "put", kXmitQueue, "the store takes more"}).result(), 0);
    field.await_log("msg no xmit header");
    field.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(stale_readers(field, kSender), 0);
    EXPECT_EQ(end_listener(listener), 0);

    // Of each putter the beginning of its run is there, and that alone.
    ProofCheck check;
    field.receiver().browse(kTarget, 0, [&](const StoredMessage& found) {
        return check.take(found.descriptor, {found.data.data(), found.data.size()}, found.attachments);
    });
    EXPECT_TRUE(check.good(false));
    std::uint64_t put = 0;
    for (const auto& [seed, run] : check.runs()) {
        put += run.taken;
        EXPECT_LE(run.missing_ranges().size(), 1U);
        EXPECT_TRUE(run.missing() == 0 || !run.seen(run.total));
    }
    RecordProperty("kills", std::to_string(kills));
    RecordProperty("put", std::to_string(put));
}

TEST_F(Kills, OfTheGetterLoseNothing) {
    Field field;
    constexpr std::uint64_t kEach = 300;
    const std::size_t kills = rounds(10);
    const std::filesystem::path out = field.home() / "out";
    for (std::size_t i = 0; i < kills && !HasFailure(); ++i) {
        field.put(MessageKind::kData, kEach, 0, 500);
        Child getter = field.start({"--qmgr", kSender, "--json", "get", kXmitQueue, "--all"});
        sleep_up_to(60000);
        kill_now(getter);
        std::ofstream(out, std::ios::app) << '\n'; // ends a line that the kill cut
    }
    Child getter = field.start({"--qmgr", kSender, "--json", "get", kXmitQueue, "--all"});
    EXPECT_EQ(getter.result(), 0) << "the queue is blocked";
    EXPECT_EQ(field.depth(), 0U);
    EXPECT_EQ(stale_readers(field, kSender), 0);

    std::ifstream stream(out);
    const std::string prefix = std::string("\"") + kTag + "-D-";
    std::uint64_t last = 0;
    std::size_t repeats = 0;
    for (std::string line; std::getline(stream, line);) {
        const std::size_t at = line.find(prefix);
        if (at == std::string::npos || line.back() != '}') {
            continue;
        }
        const std::uint64_t number = std::stoull(line.substr(at + prefix.size()));
        EXPECT_TRUE(number == last || number == last + 1) << number << " after " << last;
        repeats += number == last ? 1U : 0U;
        last = number;
    }
    EXPECT_EQ(last, field.ledger().size());
    EXPECT_LE(repeats, kills);
    RecordProperty("kills", std::to_string(kills));
    RecordProperty("repeats", std::to_string(repeats));
}

TEST_F(Kills, OfTheListenerCostTheWindowAtMost) {
    Field field;
    Child worker = [&] {
        Child listener = field.listen();
        field.set_channel({{"SHORTRTY", "100000"}});
        return field.run_channel(short_pauses());
    }();
    const std::size_t kills = rounds(4);
    for (std::size_t i = 0; i < kills && !HasFailure(); ++i) {
        Child listener = field.listen();
        const std::uint64_t before = field.arrived();
        field.put(MessageKind::kData, 400, 0, 20000);
        field.await_arrived(before + 1);
        sleep_up_to(50000);
        kill_now(listener);
    }
    Child listener = field.listen();
    field.await_drained();
    field.put(MessageKind::kData, 1, 10, 10);
    field.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    await("the last message", [&] { return field.journalled("end") > 0; });
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    const Verdict verdict = field.judge(kills);
    EXPECT_EQ(verdict.delivered + verdict.lost + verdict.dead, field.ledger().size());
    EXPECT_LE(verdict.dead, kills) << "only a line that breaks in its bind costs a dead letter";
    EXPECT_EQ(stale_readers(field, kReceiver), 0);
    RecordProperty("kills", std::to_string(kills));
    RecordProperty("dead letters", std::to_string(verdict.dead));
    RecordProperty("lost", std::to_string(verdict.lost));
    RecordProperty("lost bytes", std::to_string(verdict.lost_bytes));
}

} // namespace
} // namespace kvr::test
