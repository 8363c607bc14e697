// SPDX-License-Identifier: MIT
// The store as files - owners, versions, damage, a quota used up -, its objects, and what their schema refuses.
#include <fstream>

#include <fcntl.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "schema.h"
#include "stopped_call.h"
#include "store_fixture.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

class EnvironmentTest : public StoreTest {
  protected:
    /// Overwrites a byte, so far from each place in the closed store's file where this text stands.
    void damage(const std::string& text, std::ptrdiff_t offset) {
        store_.reset();
        const fs::path file = dir_ / "store" / "data.mdb";
        std::string bytes = test::contents(file);
        ASSERT_NE(bytes.find(text), std::string::npos);
        for (std::size_t at = 0; (at = bytes.find(text, at)) != std::string::npos; ++at) {
            bytes.at(at + static_cast<std::size_t>(offset)) = 9;
        }
        std::ofstream(file, std::ios::binary) << bytes;
    }
    /// Adds a large record and deletes it in the same transaction: its pages, the file's last ones, are never written.
    /// Returns by how many bytes the file then ends before its last page.
    std::uint64_t leave_free_pages_at_the_end() {
        store_.reset();
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        std::string name = "gone";
        std::string data(100000, 'y');
        MDB_val key{name.size(), name.data()};
        MDB_val value{data.size(), data.data()};
        MDB_envinfo info{};
        MDB_dbi table = 0;
        EXPECT_EQ(mdb_env_create(&env), 0);
        EXPECT_EQ(mdb_env_open(env, (dir_ / "store").c_str(), 0, 0600), 0);
        EXPECT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
        EXPECT_EQ(mdb_dbi_open(txn, nullptr, 0, &table), 0);
        EXPECT_EQ(mdb_put(txn, table, &key, &value, 0), 0);
        EXPECT_EQ(mdb_del(txn, table, &key, nullptr), 0);
        EXPECT_EQ(mdb_txn_commit(txn), 0);
        EXPECT_EQ(mdb_env_info(env, &info), 0);
        mdb_env_close(env);
        return (info.me_last_pgno + 1) * 4096 - fs::file_size(dir_ / "store" / "data.mdb");
    }
    [[nodiscard]] Errc open_code() const {
        return code_of([&] { return Store::open(dir_); });
    }
};

TEST_F(EnvironmentTest, RefusesAStoreThatOthersCanWriteOrThatIsNone) {
    EXPECT_EQ(Store::open(dir_ / "." / "store" / ".."), store_) << "a process opens an environment once";
    EXPECT_EQ(fs::status(dir_).permissions(), fs::perms::owner_all);
    store_.reset();
    for (const char* part : {"", "store", "store/data.mdb", "store/lock.mdb", "queues"}) {
        for (const fs::perms writable : {fs::perms::group_write, fs::perms::others_write}) {
            fs::permissions(dir_ / part, writable, fs::perm_options::add);
            EXPECT_EQ(open_code(), Errc::kPermission) << part;
            fs::permissions(dir_ / part, writable, fs::perm_options::remove);
        }
    }
    const fs::path other = folder_.path() / "X";
    EXPECT_EQ(code_of([&] { return Store::open(other); }), Errc::kNotFound);
    EXPECT_EQ(code_of([&] { return Store::create(dir_, "QM", {}), 0; }), Errc::kExists);
    EXPECT_EQ(code_of([&] { return Store::create(other, "a/b", {}), 0; }), Errc::kInvalid);
    EXPECT_EQ(code_of([&] { return Store::create(other, "X", {{"quota", "1048576"}, {"map_size", "1048576"}}), 0; }),
              Errc::kInvalid);
    EXPECT_FALSE(fs::exists(other));
}

TEST_F(EnvironmentTest, RefusesAnotherVersionAndDamage) {
    put_numbers(1, 2);
    damage("MD  ", -12); // the version of each message's record
    store_ = Store::open(dir_);
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(code_of([&] { return take(*getter); }), Errc::kDamaged);
        EXPECT_EQ(code_of([&] { return take(*getter); }), Errc::kDamaged);
    }
    EXPECT_EQ(code_of([&] { return shown(); }), Errc::kDamaged);
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
    store_->queue_delete("Q", true);
    damage("kavro.identity", 14);
    EXPECT_EQ(open_code(), Errc::kVersion);
    std::ofstream(dir_ / "store" / "data.mdb", std::ios::trunc) << std::string(8192, 'x');
    EXPECT_EQ(open_code(), Errc::kDamaged);
}

TEST_F(EnvironmentTest, RefusesAFileThatLacksPagesUnlessAllOfThemAreFree) {
    put_numbers(1, 2);
    EXPECT_EQ(put(std::string(300000, 'x'), {}, "DEAD"), Errc{});
    EXPECT_EQ(put(std::string(200000, 'x')), Errc{});
    store_->queue_delete("DEAD", true); // free pages that are there make up for none that is missing
    const std::uint64_t missing = leave_free_pages_at_the_end();
    EXPECT_TRUE(missing > 50000 && missing < 200000) << missing;
    store_ = Store::open(dir_);
    EXPECT_EQ(shown().size(), 3U);
    store_.reset();
    const fs::path file = dir_ / "store" / "data.mdb";
    for (std::uintmax_t size = fs::file_size(file); size > 0;) {
        size = size > 8192 ? size - std::min<std::uintmax_t>(size - 8192, 40960) : size / 2;
        fs::resize_file(file, size);
        EXPECT_EQ(open_code(), Errc::kDamaged) << size;
        EXPECT_EQ(fs::file_size(file), size) << "a refused file was written to";
    }
}

TEST_F(EnvironmentTest, QuotaStopsPutsAndItsRoomComesBackWhole) {
    make_store({{"quota", "2097152"}, {"map_size", "4194304"}});
    const std::string large(100000, 'x');
    const auto fill = [&] {
        int count = 0;
        Errc end{};
        for (; (end = put(large)) == Errc{}; ++count) {
        }
        EXPECT_EQ(end, Errc::kFull);
        return count;
    };
    const int fitted = fill();
    EXPECT_GE(fitted, 15);
    const Usage full = store_->usage();
    EXPECT_EQ(full.quota, 2UL << 20);
    EXPECT_TRUE(full.bytes <= full.quota && full.bytes > full.quota - large.size() * 5 / 4) << full.bytes;
    {
        const auto getter = store_->drain("Q");
        ASSERT_EQ(take(*getter), large);
        getter->put_instead("DEAD", {&descriptor_, {}, large});
    }
    EXPECT_EQ(take_all().size(), static_cast<std::size_t>(fitted - 1));
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(fill(), fitted - 1);
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
    }
    const Usage emptied = store_->usage();
    EXPECT_LT(emptied.bytes, large.size() * 5 / 4) << "the one that was dead-lettered";
    EXPECT_TRUE(emptied.file >= full.bytes && emptied.file < 4UL << 20) << emptied.file;
    store_->change_settings({{"quota", "4194304"}});
    EXPECT_GT(fill(), fitted);
}

TEST_F(EnvironmentTest, APurgeOfLargeMessagesNeedsLittleRoom) {
    const std::string large(kMaxMessage, 'x');
    const std::vector<OutgoingMessage> group(64, {&descriptor_, {}, large});
    store_->put("Q", group);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{fs::file_size(dir_ / "store" / "data.mdb") + (160UL << 10), before.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &little);
    const Errc purge = code_of([&] { return store_->queue_delete("Q", true), 0; });
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(purge, Errc{});
}

std::vector<std::string> g_notices;

/// The error of a put; empty for none.
std::string failure_of_put(Store& store, const std::string& text) {
    const T_KAVRO_MD descriptor = blank_descriptor();
    try {
        store.put("Q", OutgoingMessage{&descriptor, {}, text});
        return {};
    } catch (const Error& error) {
        return error.what();
    }
}

TEST_F(EnvironmentTest, AFrozenWriterIsNamedAndWaitsForItEnd) {
    test::Child next = test::Child::fork_off([&] { // waits as well, and is not to blame
        const auto store = Store::open(dir_);
        ::raise(SIGSTOP);
        return failure_of_put(*store, "next").empty() ? 0 : 1;
    });
    test::await_stopped(next);
    test::Child writer = test::Child::fork_off([&] {
        const auto store = Store::open(dir_);
        test::stop_at_next_call(0);
        return failure_of_put(*store, "first").empty() ? 0 : 1;
    });
    test::await_stopped(writer);
    ::kill(next.pid(), SIGCONT);
    test::await_waiting(next.pid());
    const std::string name = "waiting for process " + std::to_string(writer.pid()) + ",";
    set_notice([](const std::string& line) { g_notices.push_back(line); });
    limit_waits(std::chrono::milliseconds(4500));
    EXPECT_THAT(failure_of_put(*store_, "second"), testing::HasSubstr(name));
    EXPECT_THAT(g_notices, testing::ElementsAre(testing::StartsWith(name), testing::StartsWith("for 4 s " + name)));
    limit_waits(test::kDeadline);
    set_notice(nullptr);
    ::kill(writer.pid(), SIGCONT);
    EXPECT_EQ(failure_of_put(*store_, "third"), "");
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(next.result(), 0);
    EXPECT_THAT(shown(), testing::UnorderedElementsAre("first", "next", "third"));
}

TEST_F(EnvironmentTest, IsNotDeletedUnderAnotherProcess) {
    test::Child user = test::Child::fork_off([&] {
        const auto store = Store::open(dir_);
        return ::raise(SIGSTOP);
    });
    test::await_stopped(user);
    try {
        store_->destroy(true);
        ADD_FAILURE() << "deleted";
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), Errc::kBusy);
        EXPECT_THAT(error.what(), testing::HasSubstr("process " + std::to_string(user.pid()) + " ("));
    }
    EXPECT_EQ(put("kept"), Errc{});
    ::kill(user.pid(), SIGKILL);
    EXPECT_EQ(user.result(), -SIGKILL);
    EXPECT_EQ(code_of([&] { return store_->destroy(false), 0; }), Errc::kBusy) << "it holds a message";
    store_->destroy(true);
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(EnvironmentTest, WhatWasRemovedOrReplacedIsWrittenToNoMore) {
    const fs::path moved = folder_.path() / "moved";
    auto getter = store_->drain("Q");
    fs::rename(dir_, moved);
    for (const bool replaced : {false, true}) {
        if (replaced) {
            Store::create(dir_, "QM", {});
        }
        EXPECT_EQ(put("nowhere"), Errc::kDamaged) << replaced;
        EXPECT_EQ(code_of([&] { return take(*getter, true); }), Errc::kDamaged) << replaced;
    }
    getter.reset();
    fs::remove_all(dir_);
    fs::rename(moved, dir_);
    EXPECT_EQ(put("here"), Errc{});
    EXPECT_EQ(shown(), Texts{"here"});
}

TEST_F(EnvironmentTest, AFrozenReaderThatKeepsAllRoomIsNamed) {
    make_store({{"quota", "2097152"}, {"map_size", "4194304"}});
    test::Child reader = test::Child::fork_off([&] {
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        if (mdb_env_create(&env) != 0 || mdb_env_open(env, (dir_ / "store").c_str(), MDB_RDONLY, 0600) != 0 ||
            mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) != 0) {
            return 1;
        }
        return ::raise(SIGSTOP);
    });
    test::await_stopped(reader);
    std::string failure;
    for (int i = 0; i < 100 && failure.empty(); ++i) {
        failure = failure_of_put(*store_, std::string(100000, 'x'));
        take_all();
    }
    EXPECT_THAT(failure, testing::HasSubstr("process " + std::to_string(reader.pid()) + " "));
    ::kill(reader.pid(), SIGKILL);
    EXPECT_EQ(reader.result(), -SIGKILL);
    EXPECT_EQ(failure_of_put(*store_, std::string(100000, 'x')), "");
}

TEST_F(EnvironmentTest, AStopThatWasSeenCountsOnAndLeavesEachWaitAMoment) {
    test::Child writer = test::Child::fork_off([&] {
        const auto store = Store::open(dir_);
        test::stop_at_next_call(0);
        return failure_of_put(*store, "first").empty() ? 0 : 1;
    });
    test::await_stopped(writer);
    test::Child stopped = test::Child::fork_off([&] {
        const auto store = Store::open(dir_);
        sigset_t stop;
        ::sigemptyset(&stop);
        ::sigaddset(&stop, SIGTERM);
        ::sigprocmask(SIG_BLOCK, &stop, nullptr);
        ::raise(SIGTERM);
        int taken = 0;
        const bool gave_up = !failure_of_put(*store, "second").empty() && ::sigwait(&stop, &taken) == 0;
        const auto since = std::chrono::steady_clock::now();
        const bool again = !failure_of_put(*store, "third").empty();
        return gave_up && again && std::chrono::steady_clock::now() - since >= std::chrono::milliseconds(50) ? 0 : 1;
    });
    EXPECT_EQ(stopped.result(), 0);
}

TEST_F(EnvironmentTest, WhoReadsAlreadyGoesOnBesideAFrozenReaderAndOthersGiveUp) {
    test::Child frozen = test::Child::fork_off([&] {
        const int fd = ::open((dir_ / "store" / "open.lock").c_str(), O_RDWR);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        return ::fcntl(fd, F_OFD_SETLK, &lock) == 0 ? ::raise(SIGSTOP) : 1;
    });
    test::await_stopped(frozen);
    limit_waits(std::chrono::milliseconds(100));
    EXPECT_EQ(put("x"), Errc{});
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(shown(), Texts{"x"});
        store_->queue_define("R", "");
        const auto other = store_->drain("R"); // has the second place that the process keeps
        EXPECT_EQ(code_of([&] { return shown(); }), Errc::kBusy);
        EXPECT_EQ(take(*getter), "x");
    }
    EXPECT_EQ(shown(), Texts{"x"});
    limit_waits(test::kDeadline);
}

TEST_F(EnvironmentTest, ObjectsChangeAsAWholeOrNotAtAll) {
    store_->object_add("CHL", "B", {{"HBINT", "30"}});
    store_->object_add("CHS", "B", {{"PID", "1"}});
    store_->object_set("CHL", "B", {{"DESCR", ""}});
    const auto set = [&](const char* name, const Attributes& attributes) {
        return code_of([&] { return store_->object_set("CHL", name, attributes), 0; });
    };
    EXPECT_EQ(set("B", {{"HBINT", "1"}, {"DISCINT", std::string(64, '1')}}), Errc::kTooLong);
    EXPECT_EQ(store_->object_get("CHL", "B"), (Attributes{{"HBINT", "30"}, {"DESCR", ""}}));
    EXPECT_EQ(set("C", {}), Errc::kNotFound);
    EXPECT_EQ(set("a\nb", {}), Errc::kInvalid);
    store_->object_delete("CHL", "B");
    EXPECT_EQ(code_of([&] { return store_->object_get("CHL", "B"); }), Errc::kNotFound);
    EXPECT_EQ(store_->object_get("CHS", "B").at("PID"), "1");
}

TEST(Schema, LengthsAreTheReadersRoom) {
    const std::tuple<const char*, std::size_t, std::vector<const char*>> rooms[] = {
        {"CHL", 256, {"CHLTYPE", "HBINT", "SSLCAUTH", "LONGRTY", "CONNAME"}},
        {"CHL", 64, {"DISCINT", "LONGTMR", "SHORTRTY", "SHORTTMR"}},
        {"CHL", 33, {"XMITQ"}},
        {"QMGR", 256, {"CAFILE", "CERTFILE", "KEYFILE"}},
        {"QMGR", 64, {"KEYPASS"}},
        {"QMGR", 33, {"DEADQ"}},
        {"CHS", 256, {"PID", "STATUS"}}};
    for (const auto& [cls, room, attributes] : rooms) { // of the reader's buffer, with NUL
        for (const char* attr : attributes) {
            const std::string fits(room - 1, '1');
            EXPECT_EQ(code_of([&] { return check_attr(cls, attr, fits), 0; }), Errc{}) << attr;
            EXPECT_EQ(code_of([&] { return check_attr(cls, attr, fits + "1"), 0; }), Errc::kTooLong) << attr;
        }
    }
}

TEST(Schema, RefusesWhatCouldNotWork) {
    const std::tuple<const char*, const char*, Errc, std::vector<const char*>> cases[] = {
        {"CHANNEL", "HBINT", Errc::kInvalid, {"1"}},
        {"CHL", "HBTIN", Errc::kUnknownAttr, {"1"}},
        {"CHL", "HBINT", Errc{}, {"0", "86400"}},
        {"CHL", "HBINT", Errc::kInvalid, {"86401", "5s", " 5", ""}},
        {"CHL", "CHLTYPE", Errc{}, {"sndr"}},
        {"CHL", "CHLTYPE", Errc::kInvalid, {"RCVR"}},
        {"CHL", "SSLCAUTH", Errc{}, {"Enable"}},
        {"CHL", "SSLCAUTH", Errc::kInvalid, {"ENABLED"}},
        {"CHL", "CONNAME", Errc{}, {"10.0.0.1(65535)", "w_1.east-2.example.(1)", "3com"}},
        {"CHL",
         "CONNAME",
         Errc::kInvalid,
         {"h(65536)", "h(0)", "h(1414", "(1414)", "h(1414)x", "two words", "h(x)", "h()", " ", "h,1414", "a,b",
          "999.1.1.1", "127.1", "1.2.3.4.5", "010.0.0.1", "a..b", "-h", "h-", "h@x"}},
        {"CHL", "DESCR", Errc{}, {"Grüße"}},
        {"QMGR", "KEYFILE", Errc{}, {""}},
        {"QMGR", "KEYFILE", Errc::kInvalid, {"/a\nb"}}};
    for (const auto& [cls, attr, expected, values] : cases) {
        for (const char* value : values) {
            EXPECT_EQ(code_of([&] { return check_definition(cls, attr, value), 0; }), expected) << attr << "=" << value;
        }
    }
}

} // namespace
} // namespace kvr
