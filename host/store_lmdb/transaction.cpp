// SPDX-License-Identifier: MIT
#include "store_lmdb/transaction.h"

#include <cstring>
#include <shared_mutex>
#include <utility>

#include "store_lmdb/mdb_error.h"

namespace kvr {

namespace {

/// Runs `begin` until it has begun a transaction. The map's lock is the caller's then, until the transaction ends.
template <class Begin>
void begin_txn(Environment& env, Begin begin) {
    for (bool readers_cleared = false;;) {
        std::shared_lock map(env.map_lock());
        MDB_env* const handle = env.handle();
        const int result = handle == nullptr ? MDB_PANIC : begin(handle);
        if (result == MDB_SUCCESS) {
            map.release();
            return;
        }
        map.unlock();
        if (result == MDB_MAP_RESIZED) {
            env.adopt_map();
        } else if (result == MDB_PANIC) {
            env.reopen(handle);
        } else if (result == MDB_READERS_FULL && !std::exchange(readers_cleared, true)) {
            env.clear_stale_readers();
        } else {
            throw_mdb("begin a transaction", env.folder(), result);
        }
    }
}

} // namespace

Reader::~Reader() {
    end();
    env_.remove(*this, txn_);
}

void Reader::forget() {
    if (txn_ != nullptr) {
        mdb_txn_abort(std::exchange(txn_, nullptr));
    }
}

void Reader::begin() {
    if (!active_) {
        begin_txn(env_, [this](MDB_env* env) {
            if (txn_ != nullptr) {
                return mdb_txn_renew(txn_);
            }
            const OpeningLock turn(env_.folder());
            return mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn_);
        });
        active_ = true;
    }
}

void Reader::end() {
    if (std::exchange(active_, false)) {
        mdb_txn_reset(txn_);
        env_.map_lock().unlock_shared();
    }
}

WriteTxn::WriteTxn(Environment& env) : env_(env), turn_(env.store_lock()) {
    env.check_in_place();
    begin_txn(env, [this](MDB_env* handle) { return mdb_txn_begin(handle, nullptr, 0, &txn_); });
}

WriteTxn::~WriteTxn() {
    if (txn_ != nullptr) {
        mdb_txn_abort(txn_);
        env_.map_lock().unlock_shared();
    }
}

bool WriteTxn::commit() {
    const std::size_t id = mdb_txn_id(txn_);
    const int result = mdb_txn_commit(std::exchange(txn_, nullptr));
    env_.map_lock().unlock_shared();
    if (result != MDB_SUCCESS && !happened(id)) {
        throw_mdb("commit", env_.folder(), result);
    }
    return result == MDB_SUCCESS;
}

/// Whether a commit that failed is there all the same: nobody else commits as long as this writer has its turn.
bool WriteTxn::happened(std::size_t id) {
    try {
        Reader reader(env_);
        const ReadScope scope(reader);
        return mdb_txn_id(reader.txn()) >= id;
    } catch (const Error& error) {
        throw UnknownOutcome(error);
    }
}

std::uint64_t Reader::free_bytes() const {
    constexpr MDB_dbi kFreePages = 0; // each value is a count and that many page numbers
    MDB_stat stat{};
    check_mdb(mdb_stat(txn_, env_.main, &stat), "read", env_.folder());
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
    check_mdb(mdb_cursor_open(txn, table, &cursor_), "read", env.folder());
}

bool Cursor::get(MDB_val& key, MDB_val& value, MDB_cursor_op op) {
    const int result = mdb_cursor_get(cursor_, &key, &value, op);
    if (result == MDB_NOTFOUND) {
        return false;
    }
    check_mdb(result, "read", env_.folder());
    return true;
}

void Cursor::erase() {
    check_mdb(mdb_cursor_del(cursor_, 0), "delete", env_.folder());
}

std::optional<std::string_view> table_get(MDB_txn* txn, MDB_dbi table, std::string_view key, const Environment& env) {
    MDB_val key_val = to_val(key);
    MDB_val value{};
    const int result = mdb_get(txn, table, &key_val, &value);
    if (result == MDB_NOTFOUND) {
        return std::nullopt;
    }
    check_mdb(result, "read", env.folder());
    return to_view(value);
}

void table_put(WriteTxn& write, MDB_dbi table, std::string_view key, std::string_view value) {
    MDB_val key_val = to_val(key);
    MDB_val value_val = to_val(value);
    check_mdb(mdb_put(write.txn(), table, &key_val, &value_val, 0), "write", write.env().folder());
}

bool table_erase(WriteTxn& write, MDB_dbi table, std::string_view key) {
    MDB_val key_val = to_val(key);
    const int result = mdb_del(write.txn(), table, &key_val, nullptr);
    if (result == MDB_NOTFOUND) {
        return false;
    }
    check_mdb(result, "delete", write.env().folder());
    return true;
}

} // namespace kvr
