// SPDX-License-Identifier: MIT
// Cases at the edge of what the field can be brought to, each with an outcome of its own: room for the creation of a
// queue manager, disks that fail at one moment, more bytes than can be counted.

#include <sys/stat.h>

#include "history.h"
#include "store/xmit_header.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {

namespace fs = std::filesystem;

struct Edges : ::testing::Test {
    Field field_{Carrier::kPlain, false};
};

// However little room there is, a queue manager is made whole or not at all; and an opening takes the blocks that LMDB
// would take by storing to a hole, from the reserve if need be.
TEST_F(Edges, AFullDiskAtTheCreationAndTheOpening) {
    const Disk& disk = field_.senders_disk();
    if (!disk.mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    const fs::path folder = field_.home() / "sender";
    const auto kvr = [&](Words words) {
        words.insert(words.begin(), {"--home", folder, "--qmgr", "FULL"});
        return field_.start(words).result();
    };
    int result = 1;
    for (std::uint64_t room = 4096; result != 0 && !HasFailure(); room += 20'000) {
        disk.leave(room);
        result = kvr({"create", "FULL"});
        EXPECT_TRUE(result == 0 || field_.count("out", "No space left on device") > 0);
        EXPECT_EQ(fs::exists(folder / "FULL"), result == 0);
    }
    disk.give_back(); // for the reserve, which the creation may have used up
    EXPECT_EQ(kvr({"put", kDeadQueue, "x"}), 0);
    const fs::path readers = folder / "FULL" / "store" / "lock.mdb";
    const auto size = fs::file_size(readers);
    fs::resize_file(readers, 0);
    fs::resize_file(readers, size);
    disk.leave(0);
    EXPECT_EQ(kvr({"status"}), 0);
    struct stat info {};
    ASSERT_EQ(::stat(readers.c_str(), &info), 0);
    EXPECT_GE(static_cast<std::uint64_t>(info.st_blocks) * 512, size);
}

TEST_F(Edges, AMessageWhoseFileIsGivenUpAtAStopIsNotDelivered) {
    Child listener = field_.listen();
    const RawLine line(field_.port());
    field_.trouble("listener", "fsync 5 1");
    ASSERT_TRUE(line.send(bind_frame("C") + message_with_files(kTarget, "", {{"a", "x"}})));
    const auto await_said = [&](const std::string& text) {
        await("the listener to say " + text, [&] { return field_.count("out", text) > 0; });
    };
    await_said("cannot store a file [5:");
    ::kill(listener.pid(), SIGTERM);
    await_said("a second signal gives them up at once");
    ::kill(listener.pid(), SIGTERM);
    EXPECT_EQ(listener.result(), 1);
    EXPECT_EQ(field_.count("out", "lost: 1 complete messages"), 1U);
    EXPECT_EQ(field_.arrived(), 0U);
}

TEST_F(Edges, OneSendersFilesLeaveOthersTheirTurn) {
    constexpr std::size_t kFiles = 100;
    field_.trouble("listener", "fsync 0 1 2");
    const Child listener = field_.listen();
    ::kill(listener.pid(), SIGSTOP); // all of it is there when it looks again
    const RawLine flood(field_.port());
    const RawLine other(field_.port());
    std::string stream = bind_frame("FLOOD");
    for (std::size_t i = 0; i < kFiles; ++i) {
        stream += file_message(kTarget, {"f", "x"});
    }
    ASSERT_TRUE(flood.offer(stream) && other.offer(bind_frame("OTHER") + message(kTarget, "mine")));
    ::kill(listener.pid(), SIGCONT);
    await("all messages", [&] { return field_.journalled("message") == kFiles + 1; });
    const std::string journal = field_.text("journal");
    EXPECT_LT(journal.find(R"("channel":"OTHER","queue")"), journal.rfind(R"("channel":"FLOOD","queue")"));
}

// More bytes than an int can count: sent once, and taken for sent.
TEST_F(Edges, ThirtyOfTheLargestFilesCountAsSent) {
    if (std::getenv("KVR_BATTERY_ROUNDS") == nullptr) { // NOLINT(concurrency-mt-unsafe)
        GTEST_SKIP() << "three gigabytes: in the slow group";
    }
    const fs::path largest = field_.home() / "files" / "largest";
    std::ofstream(largest) << "the rest is a hole";
    fs::resize_file(largest, 99'999'999);
    T_KAVRO_MD descriptor{};
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    field_.sender().put(kXmitQueue, OutgoingMessage{&descriptor, Words(KVR_ACC_MAX, largest.native()),
                                                    xmit_header({kTarget, kReceiver})});
    const Child listener = field_.listen({"--discard"});
    Child worker = field_.run_channel();
    await("the send", [&] { return field_.count("log", "send data[2147483647] success.") == 1; });
    await("an empty queue", [&] { return field_.depth() == 0; });
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    await("the message", [&] { return field_.journalled("end") == 1; });
    EXPECT_EQ(field_.count("journal", "\"length\":99999999"), static_cast<std::size_t>(KVR_ACC_MAX));
    EXPECT_EQ(field_.depth(kDeadQueue), 0U);
}

// Line signals and alarms from outside at 1 to 10 kHz, from the start over sends, waits and lost lines to the stop.
TEST(Storm, DamagesNothingAndTheChannelGetsOn) {
    for (const Carrier carrier : {Carrier::kPlain, Carrier::kTls13}) {
        History h(1, carrier);
        h.stop();
        h.field.set_channel({{"SHORTTMR", "0"}, {"HBINT", "1"}, {"TRIALTMR", "0"}});
        h.start();
        h.await_text("log", "starting, plug-in");
        const auto steps = [&h] { return h.since("log", "start recv msg") + h.since("log", "begin connect"); };
        {
            const std::jthread storm([pid = h.worker->pid()](const std::stop_token& over) {
                for (int sent = 0; !over.stop_requested(); ++sent) {
                    ::kill(pid, sent % 2 == 0 ? SIGUSR2 : SIGALRM);
                    std::this_thread::sleep_for(std::chrono::microseconds(1000 - sent % 1000 * 9 / 10));
                }
            });
            for (int round = 1; round <= 100; ++round) {
                h.put(3, {1, 5'000}); // the last write of an empty one may fail when all of it has gone
                await("the channel to get on", [&, before = steps()] { return steps() > before; });
                if (round % 20 == 0) {
                    h.end_listener();
                    h.listen();
                }
            }
            ::kill(h.worker->pid(), SIGTERM);
            await("the worker's end", [&h] { return has_ended(*h.worker); });
        } // before the process id is free for others
        EXPECT_EQ(h.worker->result(), 0);
        h.run();
        h.rest({.cuts = 300, .dead = 300}); // order, repeats and bytes: any message may be on a line that ends
        h.finish();
    }
}

} // namespace kvr::test
