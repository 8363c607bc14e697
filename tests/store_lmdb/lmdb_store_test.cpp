// SPDX-License-Identifier: MIT
// The embedded engine when a process dies half-way, when the disk fails, and when its files are of another
// version, damaged, cut, moved away or replaced.

#include <lmdb.h>
#include <sys/resource.h>

#include "kavutil/export.h"
#include "store/message_record.h"
#include "store/store_fixture.h"

namespace {

ssize_t (*g_instead)() = nullptr;     ///< of each write
ssize_t (*g_for_head)() = nullptr;    ///< instead of that of a head page
ssize_t (*g_behind_head)() = nullptr; ///< once a head page is written, which makes a commit

ssize_t die() {
    return ::raise(SIGKILL);
}
template <int kError>
ssize_t fail() {
    g_instead = fail<kError>; // nothing else succeeds any more
    return errno = kError, -1;
}
void heal() {
    g_instead = g_for_head = g_behind_head = nullptr;
}
ssize_t fail_once() {
    heal();
    return errno = EIO, -1;
}
ssize_t fail_twice() {
    heal();
    g_instead = fail_once;
    return errno = EIO, -1;
}

} // namespace

extern "C" KVR_EXPORT ssize_t pwrite(int fd, const void* data, std::size_t size, off_t at) {
    constexpr off_t kEndOfHeads = 8192;
    const auto instead = at < kEndOfHeads && g_for_head != nullptr ? g_for_head : g_instead;
    const ssize_t written = instead != nullptr ? instead() : ::syscall(SYS_pwrite64, fd, data, size, at);
    return g_behind_head != nullptr && at < kEndOfHeads ? g_behind_head() : written;
}

namespace kvr {

namespace fs = std::filesystem;

class LmdbStoreTest : public StoreTest {
  protected:
    ~LmdbStoreTest() override { heal(); }
    /// A drainer takes so many messages and is killed, where `hook` is called in its commit or before that.
    void kill_a_drainer(int takes, ssize_t (**hook)() = nullptr) {
        const auto drain = [&] {
            const auto getter = store_->drain("Q");
            for (int i = 0; i < takes; ++i) {
                take(*getter);
            }
            return hook == nullptr ? ::raise(SIGKILL) : (*hook = die, getter->commit(), 1);
        };
        EXPECT_EQ(fork_user(drain).result(), -SIGKILL);
    }
    /// Overwrites a byte, so far from each place in the closed store's file where this text stands.
    void damage(const std::string& text, std::ptrdiff_t offset) {
        store_.reset();
        std::string bytes = test::contents(file_);
        for (std::size_t at = 0; (at = bytes.find(text, at)) != std::string::npos; ++at) {
            bytes.at(at + static_cast<std::size_t>(offset)) = 9;
        }
        std::ofstream(file_, std::ios::binary) << bytes;
    }
    /// A large record that comes and goes in one transaction: its pages, the file's last ones, are never written.
    void leave_free_pages_at_the_end() {
        std::string data(100000, 'y');
        MDB_val key{4, data.data()};
        MDB_val value{data.size(), data.data()};
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        MDB_dbi table = 0;
        EXPECT_TRUE(mdb_env_create(&env) == 0 && mdb_env_open(env, (dir_ / "store").c_str(), 0, 0600) == 0 &&
                    mdb_txn_begin(env, nullptr, 0, &txn) == 0 && mdb_dbi_open(txn, nullptr, 0, &table) == 0 &&
                    mdb_put(txn, table, &key, &value, 0) == 0 && mdb_del(txn, table, &key, nullptr) == 0 &&
                    mdb_txn_commit(txn) == 0);
        mdb_env_close(env);
    }
    void restore(const std::string& backup) {
        store_.reset();
        std::ofstream(file_, std::ios::binary) << backup;
        store_ = Store::open(dir_);
    }
    const fs::path queues_ = dir_ / "queues";
    const fs::path file_ = dir_ / "store" / "data.mdb";
};
INSTANTIATE_TEST_SUITE_P(Engine, LmdbStoreTest, testing::Values("lmdb"));

TEST_P(LmdbStoreTest, TheMarkOfAKilledDrainerIsBelievedOnlyWhereItIsTrue) {
    put_all({"1", "2", "3"});
    put("1", {}, "DEAD");
    const std::string backup = test::contents(file_);
    kill_a_drainer(1, &g_instead);
    EXPECT_EQ(shown(), (Texts{"2", "3"}));
    fs::copy_file(queues_ / "1.mark", queues_ / "2.mark", fs::copy_options::overwrite_existing);
    EXPECT_EQ(shown("DEAD"), Texts{"1"}) << "that mark is of another queue";
    kill_a_drainer(1, &g_behind_head);
    EXPECT_EQ(shown(), Texts{"3"}) << "the group was deleted, the mark not yet moved";
    restore(backup);
    EXPECT_EQ(shown(), (Texts{"1", "2", "3"})) << "the mark is of a later state";
}

TEST_P(LmdbStoreTest, AGroupEndsBeforeItWouldPass8MiB) {
    put_all(Texts(5, std::string(2'000'000, 'x')));
    kill_a_drainer(5);
    store_.reset();
    fs::remove(queues_ / "1.mark");
    store_ = Store::open(dir_);
    EXPECT_EQ(shown().size(), 1U) << "what came before the last is deleted";
}

TEST_P(LmdbStoreTest, WhatAKilledDrainerUsedIsPassedOverOnAFullDisk) {
    put_all({"1", "2", "3"});
    kill_a_drainer(2); // "1" is used, "2" in hand
    g_instead = fail<ENOSPC>;
    EXPECT_EQ(take(*store_->drain("Q")), "2");
}

TEST_P(LmdbStoreTest, MessageThatCannotBeHeldIsNotUsedUp) {
    put_all({"1", "2", "3", "4"});
    const auto getter = store_->drain("Q");
    const auto dead_letter = [&] {
        return code_of([&] { getter->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")}); });
    };
    EXPECT_EQ(take(*getter), "1");
    g_instead = fail<EIO>;
    EXPECT_EQ(dead_letter(), Errc::kIo);
    EXPECT_CODE(kHeld, take(*getter));
    EXPECT_CODE(kHeld, getter->commit());
    heal();
    EXPECT_EQ(take(*getter), "2") << "held as soon as it can be";
    g_instead = fail<EIO>;
    EXPECT_EQ(dead_letter(), Errc::kIo);
    heal();
    EXPECT_EQ(dead_letter(), Errc{}) << "what succeeds after all ...";
    EXPECT_EQ(take(*getter), "3");
    EXPECT_EQ(take(*getter), "4") << "... holds nothing that comes after it";
    g_behind_head = fail<EIO>;
    EXPECT_EQ(dead_letter(), Errc::kUnknown);
    heal();
    EXPECT_EQ(take(*getter), "-");
    EXPECT_EQ(shown(), Texts{"1!"}) << "what is on the other queue after all is not held";
    EXPECT_EQ(shown("DEAD"), (Texts{"dead", "dead"}));
    EXPECT_EQ(store_->queue_info("Q").held, 1U);
}

/// LMDB refuses the environment from then on. The head page is not written, or it is and cannot be put back.
TEST_P(LmdbStoreTest, AfterAHeadPageThatFailsTheStoreIsOpenedAnewAndTheWriteDoneOnce) {
    const auto getter = store_->drain("Q");
    for (const bool written : {false, true}) {
        (written ? g_behind_head : g_for_head) = written ? fail_twice : fail_once;
        EXPECT_EQ(put("once"), Errc{});
        EXPECT_TRUE(g_for_head == nullptr && g_behind_head == nullptr) << "it was met";
        EXPECT_EQ(take(*getter), "once");
        EXPECT_EQ(take(*getter), "-");
    }
}

TEST_P(LmdbStoreTest, WhatWasPutByAPutOfUnknownOutcomeIsNoRepeatForOnce) {
    const MessageIdentity identities[]{{'1'}, {'2'}};
    const std::vector<OutgoingMessage> both(2, {&descriptor_, {}, std::string_view("once")});
    const auto put_once = [&](std::size_t first, std::size_t count) {
        return store_->put_once("Q", std::span(both).subspan(first, count), std::span(identities).subspan(first, count),
                                1000);
    };
    g_behind_head = fail<EIO>;
    EXPECT_CODE(kUnknown, put_once(0, 1));
    heal();
    EXPECT_EQ(put_once(0, 2), (std::vector{true, true}));
    EXPECT_EQ(put_once(0, 2), (std::vector{false, false}));
    EXPECT_EQ(shown(), (Texts{"once", "once"}));
    g_instead = fail<EIO>;
    EXPECT_CODE(kIo, store_->put_once("Q", both, std::vector<MessageIdentity>{{'3'}, {'4'}}, 1000));
    heal();
    EXPECT_EQ(store_->put_once("Q", both, std::vector<MessageIdentity>{{'3'}, {'1'}}, 1000),
              (std::vector{true, false}));
    EXPECT_EQ(shown().size(), 3U);
}

TEST_P(LmdbStoreTest, AMarkMadeSinceABackupSaysNothingOfALaterQueue) {
    store_->queue_delete("Q", false);
    const std::string backup = test::contents(file_);
    for (const char* life : {"first", "second"}) {
        restore(backup);
        store_->queue_define("Q", ""); // with the same id
        put_all({"1", "2"});
        EXPECT_EQ(shown().size(), 2U) << life;
        kill_a_drainer(2);
    }
}

TEST_P(LmdbStoreTest, ADrainerInAnotherPidNamespaceIsSeen) {
    const auto getter = store_->drain("Q");
    test::Child elsewhere = test::Child::fork_off([&] {
        const auto look = [&] { return code_of([&] { return store_->drain("Q"); }) == Errc::kBusy ? 0 : 1; };
        const bool apart = ::unshare(CLONE_NEWPID) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWPID) == 0;
        return apart ? fork_user(look).result() : 0; // not allowed to every test
    });
    EXPECT_EQ(elsewhere.result(), 0);
}

TEST_P(LmdbStoreTest, RefusesAStoreThatOthersCanWriteTo) {
    store_.reset();
    for (const char* part : {"", "engine", "store", "store/data.mdb", "store/lock.mdb", "queues"}) {
        fs::permissions(dir_ / part, fs::perms::group_write, fs::perm_options::add);
        EXPECT_CODE(kPermission, Store::open(dir_)) << part;
        fs::permissions(dir_ / part, fs::perms::group_write, fs::perm_options::remove);
    }
}

TEST_P(LmdbStoreTest, RefusesAnotherVersionAndDamage) {
    for (const int field : {0, 5, 7, 11, 301}) { // of each record: its version, high bytes of lengths and counts
        make_store({});
        put("text", {"file"});
        put("text", {"file"});
        damage("filetext", field - 14 - std::ptrdiff_t{kDescriptorSize});
        store_ = Store::open(dir_);
        EXPECT_CODE(kDamaged, take(*store_->drain("Q"))) << field;
        EXPECT_CODE(kDamaged, shown()) << field;
        EXPECT_EQ(store_->queue_info("Q").depth, 2U);
    }
    damage("kavro.identity", 14);
    EXPECT_CODE(kVersion, Store::open(dir_));
}

TEST_P(LmdbStoreTest, AStoreOfTheVersionBeforeGoesOn) {
    ASSERT_EQ(std::system(("tar --no-same-owner -xpzf " KVR_EARLIER_STORE " -C " + folder_.path().native()).c_str()),
              0);
    dir_ = folder_.path() / "EAST"; // tests/upgrade/make_store says what it holds
    store_ = Store::open(dir_);
    const std::string large(70000, 'x');
    EXPECT_EQ(shown("LOCAL"), (Texts{"one", "two", large, "with files&"})) << "the mark is of an earlier boot";
    store_.reset();
    constexpr int kBootId = 24;
    std::fstream(dir_ / "queues" / "3.mark").seekp(kBootId)
        << test::contents("/proc/sys/kernel/random/boot_id").substr(0, 36);
    store_ = Store::open(dir_);
    EXPECT_EQ(shown("LOCAL"), (Texts{large, "with files&"}));
    EXPECT_EQ(shown("TO.WEST")[0], "no destination!");
    EXPECT_EQ(store_->settings()["quota"], "8388608");
    EXPECT_EQ(store_->object_get("CHL", "EAST.WEST")["HBINT"], "7");
    EXPECT_EQ(store_->object_get("QMGR", "QMGR")["KEYPASS"], "phrase");
    EXPECT_NE(store_->object_get("CHS", "EAST.WEST")["FAILURE"].find("could not reach"), std::string::npos);
    store_->browse("LOCAL", 4, [](const StoredMessage& message) {
        EXPECT_EQ(message.attachments.size() == 2 && message.attachments[1].ends_with("/orders"), true);
        EXPECT_EQ(message.descriptor.iPriority, 5);
        EXPECT_STREQ(message.descriptor.sReplyToQ, "REPLIES");
        return true;
    });
    EXPECT_EQ(put("new", {}, "LOCAL"), Errc{});
    EXPECT_EQ(store_->release_held("TO.WEST"), 1U);
    const auto local = store_->drain("LOCAL");
    for (const std::string& text : {large, std::string("with files"), std::string("new"), std::string("-")}) {
        EXPECT_EQ(take(*local), text);
    }
    EXPECT_EQ(take(*store_->drain("TO.WEST")), "no destination");
}

TEST_P(LmdbStoreTest, RefusesAFileThatLacksPagesUnlessAllOfThemAreFree) {
    const std::string large(300000, 'x');
    put(large, {}, "DEAD");
    put(large);
    store_->queue_delete("DEAD", true); // free pages that are there make up for none that is missing
    store_.reset();
    leave_free_pages_at_the_end();
    EXPECT_NE(Store::open(dir_), nullptr);
    for (std::uintmax_t size = fs::file_size(file_); size > 0;) {
        size = size > 300000 ? size - 40960 : size / 2;
        fs::resize_file(file_, size);
        EXPECT_CODE(kDamaged, Store::open(dir_)) << size;
        EXPECT_EQ(fs::file_size(file_), size) << "a refused file was written to";
    }
}

TEST_P(LmdbStoreTest, WhatWasRemovedOrReplacedIsWrittenToNoMore) {
    const fs::path moved = folder_.path() / "moved";
    const auto getter = store_->drain("Q");
    fs::rename(dir_, moved);
    EXPECT_EQ(put("nowhere"), Errc::kDamaged);
    Store::create(dir_, "QM", {});
    EXPECT_EQ(put("nowhere"), Errc::kDamaged);
    EXPECT_CODE(kDamaged, take(*getter, true));
    fs::remove_all(dir_);
    fs::rename(moved, dir_);
    EXPECT_EQ(put("here"), Errc{});
    EXPECT_EQ(shown(), Texts{"here"});
}

TEST_P(LmdbStoreTest, APurgeOfLargeMessagesNeedsLittleRoom) {
    const std::string large(kMaxMessage, 'x');
    store_->put("Q", std::vector<OutgoingMessage>(64, {&descriptor_, {}, large}));
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{fs::file_size(file_) + (160UL << 10), before.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &little);
    store_->queue_delete("Q", true);
    ::setrlimit(RLIMIT_FSIZE, &before);
}

} // namespace kvr
