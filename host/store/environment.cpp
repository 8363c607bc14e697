// SPDX-License-Identifier: MIT
// The LMDB environment of a queue manager with its tables, and its transactions.
#include "environment.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <sys/stat.h>

#include "file_length.h"
#include "permissions.h"
#include "store_layout.h"
#include "system_error.h"

namespace kvr {

namespace {

constexpr unsigned kMaxReaders = 512;
constexpr unsigned kTables = 8;
constexpr mdb_mode_t kFileMode = 0600;
/// A reader that was killed keeps pages from being used again until somebody looks: each process looks this often.
constexpr std::uint64_t kCommitsPerReaderCheck = 256;
constexpr std::uint64_t kCommitsPerDrop = 16;
/// By how much the map grows for a write that must not fail.
constexpr std::uint64_t kMapStep = 16ULL << 20;

void check(int result, const char* doing, const Environment& env) {
    if (result != MDB_SUCCESS) {
        throw_mdb(doing, env.folder(), result);
    }
}

/// Where the environment's file is mapped. LMDB does not say; the system does. Null when it does not.
void* find_mapping(MDB_env* env) {
    int fd = -1;
    struct stat file {};
    if (mdb_env_get_fd(env, &fd) != MDB_SUCCESS || ::fstat(fd, &file) != 0) {
        return nullptr;
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        // address-end permissions offset device inode path
        std::istringstream fields(line);
        std::uintptr_t start = 0;
        std::uint64_t offset = 0;
        std::uint64_t inode = 0;
        std::string skipped;
        char dash = 0;
        fields >> std::hex >> start >> dash >> skipped >> skipped >> offset >> skipped >> std::dec >> inode;
        if (fields && offset == 0 && inode == file.st_ino && line.ends_with("data.mdb")) {
            return reinterpret_cast<void*>(start); // NOLINT: the system tells addresses as numbers
        }
    }
    return nullptr;
}

MDB_txn* begin_txn(Environment& env, unsigned flags) {
    for (bool readers_cleared = false;;) {
        MDB_txn* txn = nullptr;
        env.map_lock().lock_shared();
        const int result = mdb_txn_begin(env.handle(), nullptr, flags, &txn);
        if (result == MDB_SUCCESS) {
            return txn; // the lock stays until the transaction ends
        }
        env.map_lock().unlock_shared();
        if (result == MDB_MAP_RESIZED) {
            env.adopt_map();
        } else if (result == MDB_READERS_FULL && !std::exchange(readers_cleared, true)) {
            env.clear_stale_readers();
        } else {
            throw_mdb("begin a transaction", env.folder(), result);
        }
    }
}

} // namespace

Environment::Environment(std::filesystem::path folder, std::optional<std::uint64_t> map_size)
    : folder_(std::move(folder)) {
    const std::filesystem::path file = folder_ / "data.mdb";
    if (!map_size) {
        check_not_empty(file);
    }
    check(mdb_env_create(&env_), "set up the store", *this);
    try {
        check(mdb_env_set_maxreaders(env_, kMaxReaders), "set up the store", *this);
        check(mdb_env_set_maxdbs(env_, kTables), "set up the store", *this);
        if (map_size) {
            check(mdb_env_set_mapsize(env_, *map_size), "set the map size", *this);
        }
        // Read transactions are not tied to threads: one per getter and call, each begun and ended at will.
        check(mdb_env_open(env_, folder_.c_str(), MDB_NOTLS, kFileMode), "open the store", *this);
        make_private_file(file);
        make_private_file(folder_ / "lock.mdb");
        clear_stale_readers();
        check_not_cut(*this, file);

        open_table_set(false, {{nullptr, &main}});
    } catch (...) {
        mdb_env_close(env_);
        throw;
    }
}

void Environment::open_tables(bool create) {
    open_table_set(create, {{"objects", &objects}, {"queues", &queues}, {"messages", &messages}, {"held", &held}});
}

void Environment::open_table_set(bool create, std::initializer_list<std::pair<const char*, MDB_dbi*>> tables) {
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, create ? 0U : MDB_RDONLY, &txn), "begin a transaction", *this);
    for (const auto& [name, table] : tables) {
        if (const int result = mdb_dbi_open(txn, name, create ? MDB_CREATE : 0U, table); result != MDB_SUCCESS) {
            mdb_txn_abort(txn);
            throw_mdb("open the tables", folder_, result);
        }
    }
    check(mdb_txn_commit(txn), "open the tables", *this);
}

Environment::~Environment() {
    mdb_env_close(env_);
}

std::uint64_t Environment::map_size() const {
    MDB_envinfo info{};
    mdb_env_info(env_, &info);
    return info.me_mapsize;
}

void Environment::grow_map(std::uint64_t size) {
    const std::unique_lock lock(map_lock_);
    if (size > map_size()) {
        map_start_ = nullptr;
        check(mdb_env_set_mapsize(env_, size), "make the map larger", *this);
    }
}

void Environment::adopt_map() {
    const std::unique_lock lock(map_lock_);
    map_start_ = nullptr;
    check(mdb_env_set_mapsize(env_, 0), "adopt the larger map", *this);
}

void Environment::set_sync(bool sync) {
    check(mdb_env_set_flags(env_, MDB_NOSYNC, sync ? 0 : 1), "set the durability", *this);
}

int Environment::clear_stale_readers() {
    int dead = 0;
    check(mdb_reader_check(env_, &dead), "clear stale readers", *this);
    return dead;
}

void Environment::drop_pages() {
    void* start = map_start_.load(std::memory_order_acquire);
    if (start == nullptr) {
        start = find_mapping(env_);
        map_start_.store(start, std::memory_order_release);
    }
    if (start != nullptr) {
        ::madvise(start, map_size(), MADV_DONTNEED); // a hint: failure only costs memory
    }
}

void Environment::count_commit() {
    const std::uint64_t count = commits_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (count % kCommitsPerReaderCheck == 0) {
        clear_stale_readers();
    }
    if (count % kCommitsPerDrop == 0) {
        const std::shared_lock lock(map_lock_);
        drop_pages();
    }
}

Reader::~Reader() {
    end();
    if (txn_ != nullptr) {
        mdb_txn_abort(txn_);
    }
}

void Reader::begin() {
    if (txn_ == nullptr) {
        txn_ = begin_txn(env_, MDB_RDONLY);
        active_ = true;
        return;
    }
    while (!active_) {
        env_.map_lock().lock_shared();
        const int result = mdb_txn_renew(txn_);
        active_ = result == MDB_SUCCESS;
        if (!active_) {
            env_.map_lock().unlock_shared();
            if (result != MDB_MAP_RESIZED) {
                throw_mdb("begin a transaction", env_.folder(), result);
            }
            env_.adopt_map();
        }
    }
}

void Reader::end() {
    if (std::exchange(active_, false)) {
        mdb_txn_reset(txn_);
        env_.map_lock().unlock_shared();
    }
}

WriteTxn::WriteTxn(Environment& env) : env_(env), txn_(begin_txn(env, 0)) {}

WriteTxn::~WriteTxn() {
    if (txn_ != nullptr) {
        mdb_txn_abort(txn_);
        env_.map_lock().unlock_shared();
    }
}

void WriteTxn::commit() {
    const int result = mdb_txn_commit(std::exchange(txn_, nullptr));
    env_.map_lock().unlock_shared();
    check(result, "commit", env_);
}

std::uint64_t Reader::free_bytes() const {
    constexpr MDB_dbi kFreePages = 0; // each value is a count and that many page numbers
    MDB_stat stat{};
    check(mdb_stat(txn_, env_.main, &stat), "read", env_);
    std::uint64_t pages = 0;
    Cursor cursor(txn_, kFreePages, env_);
    MDB_val key{};
    MDB_val value{};
    for (bool found = cursor.get(key, value, MDB_FIRST); found; found = cursor.get(key, value, MDB_NEXT)) {
        if (value.mv_size >= sizeof(std::size_t)) {
            std::size_t count = 0;
            std::memcpy(&count, value.mv_data, sizeof count);
            pages += count;
        }
    }
    return pages * stat.ms_psize;
}

Cursor::Cursor(MDB_txn* txn, MDB_dbi table, const Environment& env) : env_(env) {
    check(mdb_cursor_open(txn, table, &cursor_), "read", env);
}

bool Cursor::get(MDB_val& key, MDB_val& value, MDB_cursor_op op) {
    const int result = mdb_cursor_get(cursor_, &key, &value, op);
    if (result == MDB_NOTFOUND) {
        return false;
    }
    check(result, "read", env_);
    return true;
}

void Cursor::erase() {
    check(mdb_cursor_del(cursor_, 0), "delete", env_);
}

std::optional<std::string_view> table_get(MDB_txn* txn, MDB_dbi table, std::string_view key, const Environment& env) {
    MDB_val key_val = to_val(key);
    MDB_val value{};
    const int result = mdb_get(txn, table, &key_val, &value);
    if (result == MDB_NOTFOUND) {
        return std::nullopt;
    }
    check(result, "read", env);
    return to_view(value);
}

void table_put(WriteTxn& write, MDB_dbi table, std::string_view key, std::string_view value) {
    MDB_val key_val = to_val(key);
    MDB_val value_val = to_val(value);
    check(mdb_put(write.txn(), table, &key_val, &value_val, 0), "write", write.env());
}

bool table_erase(WriteTxn& write, MDB_dbi table, std::string_view key) {
    MDB_val key_val = to_val(key);
    const int result = mdb_del(write.txn(), table, &key_val, nullptr);
    if (result == MDB_NOTFOUND) {
        return false;
    }
    check(result, "delete", write.env());
    return true;
}

namespace {

/// What one transaction freed, LMDB uses again in the second one after it at the earliest. While every write fails for
/// want of room there is no such second one: a small one makes it. False when there is no room for that either.
bool free_what_was_freed_last(Environment& env) {
    try {
        WriteTxn write(env);
        save_usage(write, load_usage(write.txn(), env));
        write.commit();
        return true;
    } catch (const FullError&) {
        return false;
    }
}

} // namespace

void write_store(Environment& env, ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work) {
    env.count_commit();
    constexpr int kTries = 3;
    for (int attempt = 1;; ++attempt) {
        try {
            WriteTxn write(env);
            work(write);
            write.commit();
            return;
        } catch (const FullError& error) {
            const bool cleared = env.clear_stale_readers() > 0;
            if (attempt == kTries || error.shortage() == Shortage::kQuota) {
                throw;
            }
            const bool aged = attempt == 1 && free_what_was_freed_last(env);
            if (need == Need::kMayFail) {
                if (!cleared && !aged) {
                    throw;
                }
            } else if (error.shortage() == Shortage::kMap) {
                env.grow_map(env.map_size() + kMapStep);
            } else {
                reserve.release();
            }
        }
    }
}

} // namespace kvr
