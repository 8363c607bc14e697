// SPDX-License-Identifier: MIT
// The store as files: modes, owners, versions, damage, a quota used up.
#include <fstream>

#include <gmock/gmock.h>
#include <lmdb.h>
#include <sys/stat.h>

#include "keys.h"
#include "store_fixture.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

using EnvironmentTest = StoreTest;

unsigned mode_of(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777U;
}

/// Changes a record in a child: one process opens an environment once.
void tamper(const fs::path& dir, const char* table, const std::string& key,
            const std::function<std::string(std::string)>& change) {
    Child child([&](const Child::Report&) {
        MDB_env* env = nullptr;
        MDB_txn* txn = nullptr;
        MDB_dbi dbi = 0;
        mdb_env_create(&env);
        mdb_env_set_maxdbs(env, 8);
        std::string name = key;
        MDB_val key_val{name.size(), name.data()};
        MDB_val value{};
        if (mdb_env_open(env, (dir / "store").c_str(), 0, 0600) != 0 || mdb_txn_begin(env, nullptr, 0, &txn) != 0 ||
            mdb_dbi_open(txn, table, 0, &dbi) != 0 || mdb_get(txn, dbi, &key_val, &value) != 0) {
            throw std::runtime_error("no such record");
        }
        std::string changed = change(std::string(static_cast<char*>(value.mv_data), value.mv_size));
        value = {changed.size(), changed.data()};
        mdb_put(txn, dbi, &key_val, &value, 0);
        if (mdb_txn_commit(txn) != 0) {
            throw std::runtime_error("not committed");
        }
    });
    ASSERT_EQ(child.result(), 0);
}

TEST_F(EnvironmentTest, FilesArePrivateWhateverTheUmask) {
    const mode_t old = ::umask(0);
    make_store();
    put_text(*store_, "Q", "x");
    take_all(*store_, "Q");
    ::umask(old);
    int files = 0;
    EXPECT_EQ(mode_of(dir_), 0700U);
    for (const auto& entry : fs::recursive_directory_iterator(dir_)) {
        EXPECT_EQ(mode_of(entry.path()), entry.is_directory() ? 0700U : 0600U) << entry.path();
        ++files;
    }
    EXPECT_GE(files, 10);
}

TEST_F(EnvironmentTest, RefusesAStoreThatOthersCanWriteOrThatIsNone) {
    make_store();
    EXPECT_EQ(Store::open(dir_ / "." / "store" / ".."), store_) << "a process opens an environment once";
    store_.reset();
    for (const char* part : {"", "store", "store/data.mdb", "store/lock.mdb", "queues"}) {
        const fs::path path = dir_ / part;
        const unsigned mode = mode_of(path);
        for (const unsigned writable : {0020U, 0002U}) {
            ::chmod(path.c_str(), mode | writable);
            EXPECT_EQ(code_of([&] { Store::open(dir_); }), Errc::kPermission) << path;
        }
        ::chmod(path.c_str(), mode);
    }
    EXPECT_EQ(code_of([&] { Store::open(home_ / "NONE"); }), Errc::kNotFound);
    EXPECT_EQ(code_of([&] { Store::create(dir_, "QM", {}); }), Errc::kExists);
    EXPECT_EQ(code_of([&] { Store::create(home_ / "X", "a/b", {}); }), Errc::kInvalid);
    EXPECT_EQ(code_of([&] { Store::create(home_ / "X", "X", {.quota = 1 << 20, .map_size = 1 << 20}); }),
              Errc::kInvalid);
    EXPECT_FALSE(fs::exists(home_ / "X"));
    if (::geteuid() == 0) {
        const fs::path store = dir_ / "store";
        Child stranger([&](const Child::Report& report) {
            ::chmod(home_.c_str(), 0755);
            ::chmod(dir_.c_str(), 0755);
            ::chmod(store.c_str(), 0755);
            static_cast<void>(!::setuid(65534));
            report(static_cast<int>(code_of([&] { Store::open(dir_); })));
        });
        EXPECT_EQ(stranger.next_report(), static_cast<int>(Errc::kPermission));
    }
}

TEST_F(EnvironmentTest, RefusesAnotherVersionAndDamage) {
    make_store();
    put_numbers(*store_, "Q", 1, 2);
    store_.reset();
    const std::string first(MessageKey(1, 1).view());
    tamper(dir_, "messages", first, [](const std::string& record) { return record.substr(0, record.size() - 1); });
    store_ = Store::open(dir_);
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(code_of([&] { take_text(*getter); }), Errc::kDamaged);
        EXPECT_EQ(code_of([&] { take_text(*getter); }), Errc::kDamaged);
    }
    EXPECT_EQ(code_of([&] { browse_texts(*store_, "Q"); }), Errc::kDamaged);
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
    store_->queue_delete("Q", true);
    store_.reset();

    tamper(dir_, nullptr, "kavro.identity", [](std::string record) {
        record[0] = 9;
        return record;
    });
    EXPECT_EQ(code_of([&] { Store::open(dir_); }), Errc::kVersion);
    tamper(dir_, nullptr, "kavro.identity", [](const std::string&) { return "x"; });
    EXPECT_EQ(code_of([&] { Store::open(dir_); }), Errc::kDamaged);
    std::ofstream(dir_ / "store" / "data.mdb", std::ios::trunc) << std::string(8192, 'x');
    EXPECT_EQ(code_of([&] { Store::open(dir_); }), Errc::kDamaged);
}

TEST_F(EnvironmentTest, QuotaStopsPutsAndItsRoomComesBackWhole) {
    make_store({.quota = 2UL << 20, .map_size = 4UL << 20});
    const std::string large(100000, 'x');
    const auto fill = [&] {
        int count = 0;
        Errc end{};
        while ((end = code_of([&] { put_text(*store_, "Q", large); })) == Errc{}) {
            ++count;
        }
        EXPECT_EQ(end, Errc::kFull);
        return count;
    };
    const int fitted = fill();
    EXPECT_GE(fitted, 15);
    {
        const auto getter = store_->drain("Q");
        const T_KAVRO_MD descriptor = blank_descriptor();
        ASSERT_EQ(take_text(*getter), large);
        getter->put_instead("DEAD", {&descriptor, {}, large});
    }
    EXPECT_EQ(take_all(*store_, "Q").size(), static_cast<std::size_t>(fitted - 1));
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(fill(), fitted - 1);
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
    }
    store_->set_settings({.quota = 4UL << 20, .map_size = 8UL << 20, .sync = false});
    EXPECT_GT(fill(), fitted);
}

TEST_F(EnvironmentTest, ObjectsChangeAsAWholeOrNotAtAll) {
    make_store();
    store_->object_add("CHL", "B", {{"HBINT", "30"}});
    store_->object_add("CHS", "B", {{"PID", "1"}});
    store_->object_set("CHL", "B", {{"HBINT", "5"}, {"DESCR", ""}});
    const std::string lengthy(64, '1');
    EXPECT_EQ(code_of([&] { store_->object_set("CHL", "B", {{"HBINT", "1"}, {"DISCINT", lengthy}}); }), Errc::kTooLong);
    EXPECT_EQ(store_->object_get("CHL", "B"), (Attributes{{"HBINT", "5"}, {"DESCR", ""}}));
    EXPECT_EQ(code_of([&] { store_->object_set("CHL", "C", {}); }), Errc::kNotFound);
    EXPECT_EQ(code_of([&] { store_->object_add("CHL", "a\nb", {}); }), Errc::kInvalid);
    store_->object_delete("CHL", "B");
    EXPECT_EQ(code_of([&] { static_cast<void>(store_->object_get("CHL", "B")); }), Errc::kNotFound);
    EXPECT_EQ(store_->object_get("CHS", "B").at("PID"), "1");
}

} // namespace
} // namespace kvr
