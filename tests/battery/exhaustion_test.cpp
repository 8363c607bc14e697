// SPDX-License-Identifier: MIT
// Nothing left of what the channel needs: disk, quota, descriptors, processes, a disk that does not keep data. What was
// acknowledged stays, each failure has its line, and the work goes on by itself once there is room again.
#include <chrono>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "field.h"
#include "raw_line.h"
#include "small_disk.h"
#include "tools/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/// Puts messages until one is refused for lack of room.
void put_until_full(Field& field) {
    try {
        for (;;) {
            field.put(MessageKind::kData, 1, 30'000, 30'000);
        }
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), Errc::kFull) << error.what();
    }
}

/// Takes messages off the receiver's queue as they come: none missing, none twice, in order.
void take_in_order(Field& field, std::uint64_t first, std::uint64_t last) {
    std::vector<char> buffer(kMaxMessage);
    T_KAVRO_ACCESSORIES_MD files{};
    const auto getter = field.receiver().drain(kTarget);
    bool good = true;
    await("all messages", [&] {
        T_KAVRO_MD descriptor{};
        descriptor.pOptData = &files;
        while (good && first <= last && getter->next(descriptor, buffer, false) >= 0) {
            const auto number = number_of(kTag, descriptor);
            good = number == first;
            EXPECT_EQ(number, first++);
        }
        return !good || first > last;
    });
    getter->commit();
}

void record_seconds(const char* what, Clock::time_point since) {
    ::testing::Test::RecordProperty(
        what, std::to_string(std::chrono::duration<double>(Clock::now() - since).count()).substr(0, 4));
}

TEST(Exhaustion, FullDiskOfTheSender) {
    SmallDisk disk;
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    Field sender(Carrier::kPlain, disk.folder());
    Field other; // the receiver has a disk of its own
    Child listener = other.listen();
    sender.point_at(other.port());
    const auto judge = [&](std::uint64_t waiting) {
        kvr::Run run = sender.run();
        run.delivered = other.run().delivered;
        run.spools = {};
        Verdict verdict = verdict_on(run);
        EXPECT_EQ(verdict.waiting, waiting);
        return verdict;
    };
    sender.put(MessageKind::kHeaderless, 1, 100, 100);
    put_until_full(sender);
    disk.fill();
    // A put from outside says so and leaves nothing behind.
    Child put = other.start({"--home", sender.home().native(), "--qmgr", kSender, "put", kXmitQueue,
                             std::string(20'000, 'x'), "--dest", kTarget});
    EXPECT_EQ(put.result(), 1);
    EXPECT_NE(contents(other.home() / "out").find("No space left on device"), std::string::npos);
    judge(sender.ledger().size());
    // The worker starts, writes its status, dead-letters, sends and commits; somebody takes every byte that it frees.
    {
        Child worker = sender.run_channel();
        await("the queue to drain", [&] {
            disk.fill();
            return sender.depth() == 0;
        });
        other.await_arrived(sender.ledger().size() - 1);
        EXPECT_EQ(sender.depth(kDeadQueue), 1U);
        EXPECT_EQ(sender.status(), "RUNING");
        EXPECT_EQ(worker.result_under(SIGTERM), 0);
        EXPECT_EQ(sender.status(), "STOPED");
    }
    judge(0);
    Child worker = sender.run_channel();
    sender.await_status("RUNING");
    disk.fill();
    disk.give_back();
    const auto since = Clock::now();
    sender.put(MessageKind::kData, 5, 30'000, 30'000);
    other.await_arrived(sender.ledger().size() - 1);
    record_seconds("seconds to the first delivery after room came back", since);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(judge(0).delivered, sender.ledger().size() - 1);
}

// However little room there is, a queue manager is made whole or not at all; and an opening takes the blocks that LMDB
// would take by storing to a hole, from the reserve if need be.
TEST(Exhaustion, FullDiskAtTheCreationAndTheOpening) {
    SmallDisk disk;
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    Field field;
    const auto kvr = [&](std::vector<std::string> command) {
        command.insert(command.begin(), {"--home", disk.folder().native()});
        return field.start(command).result();
    };
    int result = 1;
    for (std::uint64_t room = 4096; result != 0 && !HasFailure(); room += 20'000) {
        disk.leave(room);
        result = kvr({"create", "FULL"});
        ASSERT_TRUE(result == 0 || result == 1) << result << " with " << room;
        const std::string said = contents(field.home() / "out");
        EXPECT_TRUE(result == 0 || said.find("No space left on device") != std::string::npos) << said;
        EXPECT_EQ(fs::is_empty(disk.folder()), result != 0);
    }
    disk.leave(4U << 20U); // for the reserve, which the creation may have used up
    EXPECT_EQ(kvr({"put", kDeadQueue, "x"}), 0);
    const fs::path readers = disk.folder() / "FULL" / "store" / "lock.mdb";
    const auto size = fs::file_size(readers);
    fs::resize_file(readers, 0);
    fs::resize_file(readers, size);
    disk.fill();
    EXPECT_EQ(kvr({"status"}), 0) << contents(field.home() / "out");
    struct stat info {};
    ASSERT_EQ(::stat(readers.c_str(), &info), 0);
    EXPECT_GE(static_cast<std::uint64_t>(info.st_blocks) * 512, size);
}

// Messages and files that find no room wait at the listener and behind it; getting makes room.
TEST(Exhaustion, FullDiskOfTheReceiver) {
    SmallDisk disk;
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    Field receiver(Carrier::kPlain, disk.folder());
    Field sender;
    Child listener = receiver.listen();
    sender.point_at(receiver.port());
    sender.set_channel({{"SHORTTMR", "60"}});
    const auto out = [&] { return contents(receiver.home() / "out"); };
    Child worker = sender.run_channel();
    disk.fill();
    sender.put(MessageKind::kAttached, 1, 100, 100);
    sender.put(MessageKind::kData, 400, 30'000, 30'000);
    await("the listener to say that there is no room",
          [&] { return out().find("cannot store a file [28:") != std::string::npos; });
    EXPECT_EQ(receiver.arrived(), 0U);
    disk.give_back();
    auto since = Clock::now();
    receiver.await_arrived(1);
    record_seconds("seconds to the first file after room came back", since);
    await("a full store", [&] {
        disk.fill();
        return out().find("cannot deliver") != std::string::npos;
    });
    // Taking messages off makes room for the next ones, with a disk that stays full.
    receiver.set_prelude("exec >/dev/null; exec");
    Child get = receiver.start({"--qmgr", kReceiver, "get", kTarget, "--count", "20", "--raw"});
    EXPECT_EQ(get.result(), 0) << out();
    disk.give_back();
    since = Clock::now();
    take_in_order(receiver, 21, sender.ledger().size());
    record_seconds("seconds to the last message after room came back", since);
    EXPECT_EQ(sender.depth(), 0U);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(sender.logged("line disconnected [0]"), 0U);
}

TEST(Exhaustion, ASilentSendersFileGivesItsRoomToOthers) {
    SmallDisk disk;
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    Field receiver(Carrier::kPlain, disk.folder());
    Field sender;
    Child listener = receiver.listen();
    sender.point_at(receiver.port());
    const RawLine silent(receiver.port());
    ASSERT_TRUE(silent.send(bind_frame("SILENT") +
                            frame('4', kTarget, "00000000", "00000000", block('2', 0) + padded("name", 20)) +
                            digits(20'000'000) + std::string(10'000'000, 'f')));
    await("a full spool",
          [&] { return contents(receiver.home() / "out").find("cannot store a file [28:") != std::string::npos; });
    Child worker = sender.run_channel();
    sender.put(MessageKind::kFile, 1, 5, 5);
    receiver.await_arrived(1);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
}

TEST(Exhaustion, QuotaUsedUp) {
    Field field;
    field.sender().change_settings({{"quota", "2097152"}, {"map_size", "4194304"}});
    field.put(MessageKind::kHeaderless, 1, 100'000, 100'000);
    put_until_full(field);
    const std::size_t fitted = field.ledger().size();
    Child put = field.start({"--qmgr", kSender, "put", kXmitQueue, std::string(30'000, 'x')});
    EXPECT_EQ(put.result(), 1);
    EXPECT_NE(contents(field.home() / "out").find("quota"), std::string::npos);
    Child listener = field.listen();
    Child worker = field.run_channel();
    field.await_arrived(fitted - 1);
    field.await_drained();
    EXPECT_EQ(field.depth(kDeadQueue), 1U);
    field.put(MessageKind::kData, 10, 30'000, 30'000);
    field.await_arrived(fitted + 9);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(field.judge().delivered, fitted + 9);
}

// A sender whose send time-out passes opens a line after the other while the receiver is full; all of them are read to
// their end, one after the other.
TEST(Exhaustion, QuotaOfTheReceiverUsedUpForManySendTimeOuts) {
    Field field;
    field.receiver().change_settings({{"quota", "4194304"}});
    Child listener = field.listen({"--handshake-time", "2"});
    Child worker = field.run_channel();
    // One buffer's worth for each line, or the sender would be done before its time-outs.
    const std::size_t time_outs = rounds(8);
    field.put(MessageKind::kData, 8'000 + time_outs * 5'000, 1024, 1024);
    field.await_log("error[-201]", time_outs);
    take_in_order(field, 1, field.ledger().size());
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(end_listener(listener), 0);
    EXPECT_GE(field.journalled("connect"), time_outs);
}

TEST(Exhaustion, FewDescriptorsFromTheStart) {
    Field field;
    Child listener = field.listen();
    field.set_channel({{"SHORTRTY", "1"}});
    int worked = 0;
    int refused = 0;
    for (int limit = 4; limit <= 28; limit += 2) {
        SCOPED_TRACE(limit);
        field.put_one_of_each();
        field.set_prelude("ulimit -n " + std::to_string(limit) + "; exec");
        Child worker = field.run_channel();
        bool ended = false;
        await("the end of the worker or of the queue", [&] {
            ended = has_ended(worker);
            return ended || (field.depth() == 0 && field.status() == "RUNING");
        });
        const int result = ended ? worker.result() : worker.result_under(SIGTERM);
        ++(result == 0 ? worked : refused);
        if (result != 0) {
            const std::string said = contents(field.home() / "out") + field.log();
            // Below the first few descriptors it is the system's loader that refuses, in words of its own.
            EXPECT_TRUE(said.find("Too many open files") != std::string::npos ||
                        said.find("Error 24") != std::string::npos)
                << said;
        }
    }
    EXPECT_GE(worked, 1);
    EXPECT_GE(refused, 1);
    RecordProperty("starts that worked", std::to_string(worked));
    RecordProperty("starts refused", std::to_string(refused));
    field.set_prelude("");
    Child worker = field.run_channel();
    await("all messages",
          [&] { return field.arrived() + field.depth(kDeadQueue) >= field.ledger().size() && field.depth() == 0; });
    const Verdict verdict = field.judge();
    EXPECT_EQ(verdict.delivered + verdict.dead, field.ledger().size());
    RecordProperty("dead letters", std::to_string(verdict.dead));
}

TEST(Exhaustion, FewDescriptorsWhileItRuns) {
    Field field;
    Child worker = [&] {
        Child listener = field.listen();
        Child started = field.run_channel();
        field.put(MessageKind::kData, 1, 100, 100); // the first get opens what the next ones need
        field.await_arrived(1);
        rlimit before{};
        const rlimit few{3, 1 << 12};
        EXPECT_EQ(prlimit(started.pid(), RLIMIT_NOFILE, &few, &before), 0);
        return started;
    }();
    Child listener = field.listen();
    field.await_log("error[24:Too many open files]");
    field.put(MessageKind::kData, 5, 100, 100);
    EXPECT_EQ(field.depth(), 5U);
    const rlimit enough{1 << 10, 1 << 12};
    ASSERT_EQ(prlimit(worker.pid(), RLIMIT_NOFILE, &enough, nullptr), 0);
    const auto since = Clock::now();
    field.await_arrived(6);
    record_seconds("seconds to the first delivery", since);
    field.finish(worker);
}

// Of a user's own: root has no such limit. No watcher can be forked, so that a new line cannot be guarded: the channel
// ends and says so, or its message goes to the dead-letter queue; nothing is lost.
TEST(Exhaustion, NoMoreProcesses) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "starts the worker as another user";
    }
    Field field;
    Child listener = field.listen();
    field.put(MessageKind::kData, 5, 100, 100);
    const std::string user = "64123";
    // With the right to pass folders of root's: the program may have been built below one.
    const std::string as_user =
        "exec setpriv --reuid=" + user + " --clear-groups --inh-caps=+dac_override --ambient-caps=+dac_override";
    for (const char* folder : {kSender, "files"}) {
        ASSERT_EQ(std::system(("chown -R " + user + " " + (field.home() / folder).native()).c_str()), 0);
    }
    std::ofstream(field.home() / "log").flush();
    ASSERT_EQ(std::system(("chown " + user + " " + (field.home() / "log").native()).c_str()), 0);
    {
        field.set_prelude(as_user + " prlimit --nproc=1");
        Child worker = field.run_channel();
        EXPECT_EQ(worker.result(), 1);
    }
    EXPECT_GE(field.logged("fork error[11:Resource temporarily unavailable]"), 1U) << field.log();
    EXPECT_EQ(field.status(), "STOPED");
    EXPECT_EQ(field.judge().waiting, 5U);
    field.set_prelude(as_user);
    Child worker = field.run_channel();
    field.finish(worker);
}

TEST(Exhaustion, ADiskThatDoesNotKeepData) {
    Field field;
    const fs::path switch_file = field.home() / "no-flush";
    const Environment failing{{"LD_PRELOAD", KVR_FLUSH_FAILS_LIBRARY}, {"KVR_FLUSH_FAILS", switch_file.native()}};
    const auto fail = [&](bool on) { on ? std::ofstream(switch_file).flush(), true : fs::remove(switch_file); };
    // A put that cannot be flushed is not acknowledged, and not there.
    fail(true);
    Child put = field.start({"--qmgr", kSender, "put", kXmitQueue, "lost", "--dest", kTarget}, failing);
    EXPECT_EQ(put.result(), 1);
    EXPECT_NE(contents(field.home() / "out").find("Input/output error"), std::string::npos);
    EXPECT_EQ(field.depth(), 0U);
    fail(false);
    // A listener keeps what it cannot store and stores it later.
    { Child first = field.listen(); }
    Child listener = field.start({"--qmgr", kReceiver, "listen", "--bind", "127.0.0.1", "--port",
                                  std::to_string(field.port()), "--spool", (field.home() / "spool").native()},
                                 failing);
    // A worker whose deletes cannot be flushed ends, and the next one repeats nothing.
    Child worker = field.run_channel(failing);
    field.await_status("RUNING");
    fail(true);
    field.put(MessageKind::kData, 50, 100, 100);
    EXPECT_EQ(worker.result(), 1);
    EXPECT_GE(field.logged("Input/output error"), 1U);
    await("the listener to say so",
          [&] { return contents(field.home() / "out").find("cannot deliver") != std::string::npos; });
    EXPECT_EQ(field.arrived(), 0U);
    fail(false);
    const auto since = Clock::now();
    field.await_arrived(50);
    record_seconds("seconds to the first delivery", since);
    Child next = field.run_channel();
    field.await_status("RUNING");
    field.put(MessageKind::kData, 5, 100, 100);
    field.await_arrived(55);
    field.expect_all_delivered();
}

// LMDB refuses a store of whose head one write failed: each program opens it anew by itself, and the write is done
// once.
TEST(Exhaustion, AHeadPageThatCannotBeWritten) {
    Field field;
    const auto failing = [&](const char* who) {
        return Environment{{"LD_PRELOAD", KVR_HEAD_FAILS_LIBRARY}, {"KVR_HEAD_FAILS", (field.home() / who).native()}};
    };
    const auto fail = [&](const char* who, const char* how) { std::ofstream(field.home() / who) << how; };
    const auto out = [&] { return contents(field.home() / "out"); };
    for (const char* how : {"head", "told"}) {
        fail("put", how);
        Child put = field.start({"--qmgr", kSender, "put", kXmitQueue, how}, failing("put"));
        EXPECT_EQ(put.result(), 0) << out();
        EXPECT_FALSE(fs::exists(field.home() / "put")) << "nothing failed";
        EXPECT_NE(out().find("opened anew"), std::string::npos);
        Child get = field.start({"--qmgr", kSender, "get", kXmitQueue, "--all"});
        EXPECT_EQ(get.result(), 0);
    }
    // Where nobody else has the store open, the write is seen to be done, and is not durable.
    EXPECT_EQ(field.start({"create", "LONE"}).result(), 0);
    EXPECT_EQ(field.start({"--qmgr", "LONE", "define", "queue", "Q"}).result(), 0);
    fail("put", "again");
    EXPECT_EQ(field.start({"--qmgr", "LONE", "put", "Q", "text"}, failing("put")).result(), 1);
    EXPECT_NE(out().find("happened is not known"), std::string::npos) << out();
    { Child first = field.listen(); }
    Child listener = field.start({"--qmgr", kReceiver, "listen", "--bind", "127.0.0.1", "--port",
                                  std::to_string(field.port()), "--spool", (field.home() / "spool").native()},
                                 failing("listener"));
    Child worker = field.run_channel(failing("worker"));
    field.await_status("RUNING");
    std::uint64_t sent = 0;
    for (const char* who : {"listener", "worker"}) {
        for (const char* how : {"head", "told"}) {
            fail(who, how);
            field.put(MessageKind::kData, 20, 100, 100);
            field.await_arrived(sent += 20);
            await("the failure", [&] { return !fs::exists(field.home() / who); });
            field.put(MessageKind::kData, 1, 100, 100); // moves once the write has been done again
            field.await_arrived(sent += 1);
        }
    }
    field.await_log("opened anew", 2);
    field.finish(worker);
}

/// Has the writer's turn of a store, and sits on it, as a process that was stopped in the middle of a write.
Child frozen_writer(const fs::path& qmgr) {
    Child child = Child::fork_off([&] {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_len = 1;
        const int fd = ::open((qmgr / "store" / "write.lock").c_str(), O_RDWR | O_CLOEXEC);
        while (::fcntl(fd, F_SETLKW, &lock) != 0) {
        }
        return ::raise(SIGSTOP);
    });
    siginfo_t how{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &how, WSTOPPED | WNOWAIT), 0);
    return child;
}

TEST(Exhaustion, AFrozenWriter) {
    Field field;
    Child listener = field.listen();
    Child worker = field.run_channel();
    field.await_status("RUNING");
    ::kill(worker.pid(), SIGSTOP);
    field.put(MessageKind::kData, 5, 100, 100);
    Child writer = frozen_writer(field.home() / kSender);
    ::kill(worker.pid(), SIGCONT);
    field.await_arrived(5); // the worker is about to delete them
    const std::string pid = std::to_string(writer.pid());
    const std::string name = "process " + pid + ",";
    await("the worker to say what it waits for", [&] {
        return field.logged("waiting for " + name) > 0 &&
               contents(field.home() / "out").find("kvr: waiting for " + name) != std::string::npos;
    });
    const auto since = Clock::now();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    record_seconds("seconds to the worker's end", since);
    std::ofstream(field.home() / "out").flush();
    Child put = field.start({"--qmgr", kSender, "put", kXmitQueue, "waits"});
    await("the put to say what it waits for",
          [&] { return contents(field.home() / "out").find("waiting for " + name) != std::string::npos; });
    Child stop = field.start({"--qmgr", kSender, "stop", kChannel});
    EXPECT_EQ(stop.result(), 1);
    EXPECT_EQ(field.start({"--qmgr", kSender, "status"}).result(), 0);
    const std::string out = contents(field.home() / "out");
    EXPECT_NE(out.find("gave up waiting for " + name), std::string::npos);
    EXPECT_NE(out.find("process " + pid + " is stopped in the middle of a write"), std::string::npos);
    ::kill(writer.pid(), SIGCONT);
    EXPECT_EQ(put.result(), 0);
    EXPECT_EQ(field.start({"--qmgr", kSender, "stop", kChannel}).result(), 0);
    EXPECT_EQ(field.status(), "STOPED");
    EXPECT_EQ(field.depth(), 1U);
}

TEST(Exhaustion, AFrozenWriterInFrontOfTheListener) {
    Field field;
    const auto said = [&field](const std::string& text) {
        await("the listener to say " + text,
              [&] { return contents(field.home() / "out").find(text) != std::string::npos; });
    };
    for (const bool goes_on : {true, false}) {
        fs::remove(field.home() / "out");
        Child listener = field.listen();
        const Child writer = frozen_writer(field.home() / kReceiver);
        const RawLine line(field.port());
        ASSERT_TRUE(line.send(bind_frame("C") + message(kTarget, "waits")));
        said("gave up waiting for process " + std::to_string(writer.pid()) + ",");
        if (goes_on) {
            ::kill(writer.pid(), SIGCONT);
            field.await_arrived(1);
        }
        const auto since = Clock::now();
        ::kill(listener.pid(), SIGTERM);
        EXPECT_EQ(listener.result(), goes_on ? 0 : 1);
        record_seconds(goes_on ? "seconds to the end" : "seconds to the end behind the writer", since);
        ::kill(writer.pid(), SIGCONT);
        if (!goes_on) {
            said("lost: 1 complete messages");
        }
        EXPECT_EQ(field.arrived(), 1U);
    }
}

} // namespace
} // namespace kvr::test
