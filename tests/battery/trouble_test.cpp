// SPDX-License-Identifier: MIT
// A listener whose disk or store is in trouble, its sender under load: it waits, says why, and goes on by itself. What
// it has to give up at a stop it tells.
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "field.h"
#include "raw_line.h"
#include "small_disk.h"
#include "support/folder.h"
#include "tools/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::Not;

class TroubledListener : public ::testing::Test {
  protected:
    TroubledListener() {
        field_.set_prelude("LD_PRELOAD=" KVR_FLUSH_FAILS_LIBRARY " KVR_FLUSH_FAILS='" + switch_.native() + "' exec");
    }
    /// From now on, as flush_fails.cpp reads it; empty: nothing fails.
    void fail(const std::string& what) {
        const fs::path fresh = switch_.native() + ".new";
        if (what.empty()) {
            fs::remove(switch_);
            return;
        }
        std::ofstream(fresh) << what;
        fs::rename(fresh, switch_);
    }
    [[nodiscard]] std::string said() const { return contents(field_.home() / "out"); }
    void await_said(const std::string& text) {
        await("the listener to say " + text, [&] { return said().find(text) != std::string::npos; });
    }

    Field field_;
    const fs::path switch_ = field_.home() / "trouble";
};

struct Trouble {
    const char* name;
    const char* disk;    ///< how calls fail
    std::uint64_t quota; ///< of the store; 0: enough
    bool full_spool;
    const char* said;
};

class UnderLoad : public TroubledListener, public ::testing::WithParamInterface<Trouble> {
  protected:
    void begin() {
        fail(GetParam().disk);
        if (spool_) {
            spool_->leave(64U << 10U);
        }
    }
    /// Things get better, and the work goes on by itself.
    void ease() {
        const std::uint64_t before = field_.arrived();
        fail("");
        raise_quota();
        if (spool_) {
            spool_->leave(8U << 20U);
        }
        load();
        await("further messages", [&] { return field_.arrived() > before; });
    }
    void raise_quota() {
        if (GetParam().quota != 0) {
            quota_ += GetParam().quota;
            field_.receiver().change_settings({{"quota", std::to_string(quota_)}});
        }
    }
    void load() {
        if (field_.depth() < 500 && field_.ledger().size() < field_.arrived() + 10'000) {
            field_.put(MessageKind::kData, 40, 10, 3000);
            field_.put(MessageKind::kSmall, 5, 100, 200);
            field_.put(MessageKind::kFile, 2, 100, 5000);
        }
    }

    std::optional<SmallDisk> spool_;
    std::uint64_t quota_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Troubles, UnderLoad,
                         ::testing::Values(Trouble{"RandomErrors", "5 50", 0, false, "Input/output error"},
                                           Trouble{"ReadOnlyDisk", "30 1", 0, false, "cannot deliver"},
                                           Trouble{"FullStore", "", 1U << 20U, false, "quota"},
                                           Trouble{"FullSpool", "", 0, true, "cannot store a file [28:"}),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(UnderLoad, LosesNothing) {
    if (GetParam().full_spool && !spool_.emplace(field_.home() / "spool").mounted()) {
        GTEST_SKIP() << "no file system can be mounted here";
    }
    raise_quota();
    Child listener = field_.listen();
    field_.set_prelude("");
    Child worker = field_.run_channel();
    field_.await_status("RUNING");
    const auto end = Clock::now() + std::chrono::seconds(rounds(4));
    while (Clock::now() < end) {
        begin();
        for (const auto pause = Clock::now() + std::chrono::seconds(2); Clock::now() < pause;) {
            load();
        }
        ease();
    }
    field_.receiver().change_settings({{"quota", "1073741824"}});
    if (spool_) {
        spool_->leave(1U << 30U);
    }
    field_.put_one_of_each();
    field_.await_all();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(end_listener(listener), 0) << said();
    EXPECT_THAT(said(), HasSubstr(GetParam().said));
    for (const char* untrue : {"dropped", "lost", "dead-letter queue"}) {
        EXPECT_THAT(said(), Not(HasSubstr(untrue)));
    }
    field_.expect_all_delivered();
    RecordProperty("messages", std::to_string(field_.ledger().size()));
    RecordProperty("lines", std::to_string(field_.journalled("connect")));
}

TEST_F(TroubledListener, AStopWaitsForRoomAndCountsWhatFindsNone) {
    const std::string body(20'000, 'b');
    std::string stream = bind_frame("C");
    for (const char* file : {"first", "second", "third", "fourth", "fifth"}) {
        stream += message_with_files(kTarget, body, {{file, file}});
    }
    constexpr std::uint64_t kMessages = 2000;
    for (std::uint64_t i = 5; i < kMessages; ++i) { // more than is read before the store is found to be full
        stream += message(kTarget, std::string(1000, 'm'));
    }
    for (const bool room : {true, false}) {
        fs::remove(field_.home() / "out");
        const std::uint64_t before = field_.arrived();
        field_.receiver().change_settings({{"quota", "65536"}});
        Child listener = field_.listen();
        std::thread sending([&] {
            const RawLine line(field_.port());
            EXPECT_TRUE(line.send(stream));
            line.await_end();
        });
        await_said("cannot deliver");
        ::kill(listener.pid(), SIGTERM);
        await_said("unless there is room");
        if (room) {
            field_.receiver().change_settings({{"quota", "1073741824"}});
        }
        EXPECT_EQ(listener.result(), room ? 0 : 1) << said();
        sending.join();
        const std::uint64_t lost = kMessages - (field_.arrived() - before);
        EXPECT_EQ(lost == 0, room);
        EXPECT_EQ(field_.journalled("lost"), lost);
        if (!room) {
            EXPECT_THAT(said(), HasSubstr(" lost: " + std::to_string(lost) + " complete messages"));
            EXPECT_THAT(said(), HasSubstr("lost: the message ID for queue"));
        }
    }
    // Those that were complete when it was stopped keep their files.
    EXPECT_EQ(contents(field_.home() / "spool/first.1"), "first");
}

TEST_F(TroubledListener, AMessageWhoseFileWasGivenUpIsNotDelivered) {
    Child listener = field_.listen();
    const RawLine line(field_.port());
    std::string stream = bind_frame("C") + message_with_files(kTarget, "body", {{"a", "xyz"}});
    const char last = stream.back();
    stream.pop_back();
    ASSERT_TRUE(line.send(stream));
    await("the file", [&] { return !fs::is_empty(field_.home() / "spool/.incoming"); });
    ::kill(listener.pid(), SIGTERM);
    await_said("stopping");
    fail("5 1 fsync 2500"); // longer than the stop waits for the line
    ASSERT_TRUE(line.send(std::string(1, last)));
    await_said("lost");
    fail("");
    EXPECT_EQ(listener.result(), 1);
    EXPECT_EQ(field_.arrived(), 0U) << said();
}

TEST_F(TroubledListener, WithoutDescriptorsAMessageWaits) {
    Child listener = field_.listen();
    const RawLine line(field_.port());
    ASSERT_TRUE(line.send(bind_frame("C")));
    await("the bind", [&] { return field_.journalled("bind") == 1; });
    rlimit before{};
    ASSERT_EQ(::prlimit(listener.pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(::prlimit(listener.pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    ASSERT_TRUE(line.send(message(kTarget, "first") + message_with_files(kTarget, "second", {{"a", "x"}})));
    await_said("Too many open files");
    ASSERT_EQ(::prlimit(listener.pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    field_.await_arrived(2);
    EXPECT_EQ(end_listener(listener), 0);
}

TEST_F(TroubledListener, AFullSpoolDoesNotFillMemory) {
    Child listener = field_.listen();
    const std::uint64_t before = memory_of(listener.pid(), "VmHWM");
    fail("28 1 write");
    std::vector<std::unique_ptr<RawLine>> lines;
    for (int i = 0; i < 200; ++i) {
        lines.push_back(std::make_unique<RawLine>(field_.port()));
        ASSERT_TRUE(lines.back()->offer(bind_frame("C" + std::to_string(i)) +
                                        message_with_files(kTarget, std::string(500'000, 'b'), {{"a", "x"}})));
    }
    await_said("while memory is short");
    EXPECT_LT(memory_of(listener.pid(), "VmHWM"), before + (60U << 20U));
}

TEST_F(TroubledListener, AFileThatCannotBeSyncedHoldsTheNextOneBack) {
    Child listener = field_.listen();
    const RawLine line(field_.port());
    fail("5 1 fsync");
    ASSERT_TRUE(line.send(bind_frame("C") + message_with_files(kTarget, "", {{"a", "x"}, {"b", "y"}, {"c", "z"}})));
    await_said("cannot store a file [5:");
    EXPECT_LE(names_in(field_.home() / "spool/.incoming").size(), 2U); // and its copy
    fail("");
    field_.await_arrived(1);
    EXPECT_EQ(end_listener(listener), 0);
}

TEST_F(TroubledListener, OneSendersFilesLeaveOthersTheirTurn) {
    fail("0 2"); // milliseconds for each flush
    Child listener = field_.listen();
    const RawLine flood(field_.port());
    const RawLine other(field_.port());
    ASSERT_TRUE(flood.send(bind_frame("FLOOD")) && other.send(bind_frame("OTHER")));
    await("the binds", [&] { return field_.journalled("bind") == 2; });
    // All of it is there when the listener looks again.
    ::kill(listener.pid(), SIGSTOP);
    constexpr std::size_t kFiles = 100;
    std::string stream;
    for (std::size_t i = 0; i < kFiles; ++i) {
        stream += file_message(kTarget, {"f", "x"}, 1);
    }
    ASSERT_TRUE(flood.offer(stream) && other.offer(message(kTarget, "mine")));
    ::kill(listener.pid(), SIGCONT);
    field_.await_arrived(kFiles + 1);
    const std::string journal = contents(field_.home() / "journal");
    EXPECT_LT(journal.find(R"("channel":"OTHER","queue")"), journal.rfind(R"("channel":"FLOOD","queue")"));
    EXPECT_EQ(end_listener(listener), 0);
}

TEST_F(TroubledListener, ASpoolThatCannotKeepFilesIsRefusedAtOnce) {
    for (const auto& [trouble, reason] : {std::pair("95 1 linkat", "[95:"), std::pair("5 1 fsync", "[5:")}) {
        fail(trouble);
        Child listener = field_.start({"--qmgr", kReceiver, "listen", "--bind", "127.0.0.1", "--port", "0", "--spool",
                                       (field_.home() / "spool").native()});
        await("its end", [&] { return has_ended(listener); });
        EXPECT_EQ(listener.result_under(SIGTERM), 1);
        EXPECT_THAT(said(), ::testing::AllOf(HasSubstr("spool folder"), HasSubstr(reason)));
    }
}

TEST_F(TroubledListener, ASpoolThatGoesAwayIsMissed) {
    const fs::path spool = field_.home() / "spool";
    const fs::path elsewhere = field_.home() / "elsewhere";
    Child listener = field_.listen();
    const RawLine line(field_.port());
    fs::remove_all(spool);
    ASSERT_TRUE(line.send(bind_frame("C") + file_message(kTarget, {"removed", "one"}, 7)));
    field_.await_arrived(1);
    EXPECT_EQ(contents(spool / "removed"), "one");
    fs::rename(spool, elsewhere);
    ASSERT_TRUE(line.send(file_message(kTarget, {"moved", "two"}, 5)));
    await_said("was moved");
    EXPECT_EQ(field_.arrived(), 1U);
    fs::rename(elsewhere, spool);
    field_.await_arrived(2);
    EXPECT_EQ(contents(spool / "moved"), "two");
    EXPECT_EQ(end_listener(listener), 0);
}

} // namespace
} // namespace kvr::test
