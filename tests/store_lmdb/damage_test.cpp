// SPDX-License-Identifier: MIT
// The embedded engine's files when others can write to them, or when they are of another version, damaged, cut, moved
// away or replaced; and that a purge needs little room on the disk.
#include <fstream>

#include <lmdb.h>
#include <sys/resource.h>

#include "store/store_fixture.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

class DamageTest : public StoreTest {
  protected:
    /// Overwrites a byte, so far from each place in the closed store's file where this text stands.
    void damage(const std::string& text, std::ptrdiff_t offset) {
        store_.reset();
        std::string bytes = test::contents(file_);
        ASSERT_NE(bytes.find(text), std::string::npos);
        for (std::size_t at = 0; (at = bytes.find(text, at)) != std::string::npos; ++at) {
            bytes.at(at + static_cast<std::size_t>(offset)) = 9;
        }
        std::ofstream(file_, std::ios::binary) << bytes;
    }
    /// Adds a large record and deletes it in the same transaction: its pages, the file's last ones, are never written.
    /// Returns by how many bytes the file then ends before its last page.
    std::uint64_t leave_free_pages_at_the_end() {
        store_.reset();
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        std::string data(100000, 'y');
        MDB_val key{4, data.data()};
        MDB_val value{data.size(), data.data()};
        MDB_envinfo info{};
        MDB_dbi table = 0;
        EXPECT_TRUE(mdb_env_create(&env) == 0 && mdb_env_open(env, (dir_ / "store").c_str(), 0, 0600) == 0);
        EXPECT_TRUE(mdb_txn_begin(env, nullptr, 0, &txn) == 0 && mdb_dbi_open(txn, nullptr, 0, &table) == 0);
        EXPECT_TRUE(mdb_put(txn, table, &key, &value, 0) == 0 && mdb_del(txn, table, &key, nullptr) == 0);
        EXPECT_TRUE(mdb_txn_commit(txn) == 0 && mdb_env_info(env, &info) == 0);
        mdb_env_close(env);
        return (info.me_last_pgno + 1) * 4096 - fs::file_size(file_);
    }
    const fs::path file_ = dir_ / "store" / "data.mdb";
};

TEST_F(DamageTest, RefusesAStoreThatOthersCanWriteOrThatHasNoRoomAboveItsQuota) {
    const Settings tight{{"quota", "1048576"}, {"map_size", "1048576"}};
    EXPECT_EQ(code_of([&] { store_->change_settings(tight); }), Errc::kInvalid);
    EXPECT_EQ(fs::status(dir_).permissions(), fs::perms::owner_all);
    store_.reset();
    for (const char* part : {"", "store", "store/data.mdb", "store/lock.mdb", "queues"}) {
        for (const fs::perms writable : {fs::perms::group_write, fs::perms::others_write}) {
            fs::permissions(dir_ / part, writable, fs::perm_options::add);
            EXPECT_CODE(kPermission, Store::open(dir_)) << part;
            fs::permissions(dir_ / part, writable, fs::perm_options::remove);
        }
    }
}

TEST_F(DamageTest, RefusesAnotherVersionAndDamage) {
    put_all({"1", "2"});
    damage("MD  ", -12); // the version of each message's record
    store_ = Store::open(dir_);
    {
        const auto getter = store_->drain("Q");
        EXPECT_CODE(kDamaged, take(*getter));
        EXPECT_CODE(kDamaged, take(*getter));
    }
    EXPECT_CODE(kDamaged, shown());
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
    store_->queue_delete("Q", true);
    damage("kavro.identity", 14);
    EXPECT_CODE(kVersion, Store::open(dir_));
    std::ofstream(file_, std::ios::trunc) << std::string(8192, 'x');
    EXPECT_CODE(kDamaged, Store::open(dir_));
}

TEST_F(DamageTest, RefusesAFileThatLacksPagesUnlessAllOfThemAreFree) {
    put_all({"1", "2"});
    EXPECT_EQ(put(std::string(300000, 'x'), {}, "DEAD"), Errc{});
    EXPECT_EQ(put(std::string(200000, 'x')), Errc{});
    store_->queue_delete("DEAD", true); // free pages that are there make up for none that is missing
    const std::uint64_t missing = leave_free_pages_at_the_end();
    EXPECT_TRUE(missing > 50000 && missing < 200000) << missing;
    store_ = Store::open(dir_);
    EXPECT_EQ(shown().size(), 3U);
    store_.reset();
    for (std::uintmax_t size = fs::file_size(file_); size > 0;) {
        size = size > 8192 ? size - std::min<std::uintmax_t>(size - 8192, 40960) : size / 2;
        fs::resize_file(file_, size);
        EXPECT_CODE(kDamaged, Store::open(dir_)) << size;
        EXPECT_EQ(fs::file_size(file_), size) << "a refused file was written to";
    }
}

TEST_F(DamageTest, WhatWasRemovedOrReplacedIsWrittenToNoMore) {
    const fs::path moved = folder_.path() / "moved";
    auto getter = store_->drain("Q");
    fs::rename(dir_, moved);
    for (const bool replaced : {false, true}) {
        if (replaced) {
            Store::create(dir_, "QM", {});
        }
        EXPECT_EQ(put("nowhere"), Errc::kDamaged) << replaced;
        EXPECT_CODE(kDamaged, take(*getter, true)) << replaced;
    }
    getter.reset();
    fs::remove_all(dir_);
    fs::rename(moved, dir_);
    EXPECT_EQ(put("here"), Errc{});
    EXPECT_EQ(shown(), Texts{"here"});
}

TEST_F(DamageTest, APurgeOfLargeMessagesNeedsLittleRoom) {
    const std::string large(kMaxMessage, 'x');
    const std::vector<OutgoingMessage> group(64, {&descriptor_, {}, large});
    store_->put("Q", group);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{fs::file_size(file_) + (160UL << 10), before.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &little);
    const Errc purge = code_of([&] { store_->queue_delete("Q", true); });
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(purge, Errc{});
}

} // namespace
} // namespace kvr
