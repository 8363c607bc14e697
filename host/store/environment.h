// SPDX-License-Identifier: MIT
// The LMDB environment of a queue manager with its tables, and its transactions.
//
// Read transactions are short: one that stays open keeps every page that was freed since from being used again, and the
// map fills. Each Environment belongs to the process that opened it; a forked child opens its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <optional>
#include <shared_mutex>
#include <string_view>
#include <utility>

#include <lmdb.h>

#include "reserve_file.h"

namespace kvr {

class Environment {
  public:
    /// Opens the environment in `folder`; makes it when `map_size` is given. The tables are opened by themselves, after
    /// the caller knows from `main` that it understands them.
    Environment(std::filesystem::path folder, std::optional<std::uint64_t> map_size);
    ~Environment();
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    void open_tables(bool create);

    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
    [[nodiscard]] MDB_env* handle() const { return env_; }

    MDB_dbi main = 0;     ///< settings and usage of the store
    MDB_dbi objects = 0;  ///< class NUL name → attributes
    MDB_dbi queues = 0;   ///< name → queue record
    MDB_dbi messages = 0; ///< queue id, sequence → message record
    MDB_dbi held = 0;     ///< queue id, sequence of a message that is held → reason

    /// Makes the map at least this large. No transaction of the calling thread may be open.
    void grow_map(std::uint64_t size);
    [[nodiscard]] std::uint64_t map_size() const;
    /// Adopts a map that another process made larger.
    void adopt_map();
    void set_sync(bool sync);
    /// Frees the slots of readers that died. Returns how many.
    int clear_stale_readers();
    /// Lets go of the mapped pages that were read: they count as this process's memory. They stay in the system's
    /// cache. No transaction of the calling thread is needed, none is disturbed.
    void drop_pages();

    /// Held by every open transaction, so that the map moves under none.
    std::shared_mutex& map_lock() { return map_lock_; }
    /// Lets go of pages every few commits: a write reads some, wherever it goes.
    void count_commit();

  private:
    void open_table_set(bool create, std::initializer_list<std::pair<const char*, MDB_dbi*>> tables);

    std::filesystem::path folder_;
    MDB_env* env_ = nullptr;
    std::atomic<void*> map_start_{nullptr}; ///< null: not looked up since the map moved
    std::atomic<std::uint64_t> commits_{0};
    std::shared_mutex map_lock_;
};

/// A read transaction that is begun and ended many times at little cost. Ended between calls.
class Reader {
  public:
    explicit Reader(Environment& env) : env_(env) {}
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void begin();
    void end();
    [[nodiscard]] MDB_txn* txn() const { return txn_; }
    [[nodiscard]] Environment& env() const { return env_; }
    /// Bytes of the file that hold nothing any more. Walks the list of free pages: for a disk that is full only.
    [[nodiscard]] std::uint64_t free_bytes() const;

  private:
    Environment& env_;
    MDB_txn* txn_ = nullptr;
    bool active_ = false;
};

class ReadScope {
  public:
    explicit ReadScope(Reader& reader) : reader_(reader) { reader_.begin(); }
    ~ReadScope() { reader_.end(); }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

  private:
    Reader& reader_;
};

/// A write transaction: undone unless committed.
class WriteTxn {
  public:
    explicit WriteTxn(Environment& env);
    ~WriteTxn();
    WriteTxn(const WriteTxn&) = delete;
    WriteTxn& operator=(const WriteTxn&) = delete;

    void commit();
    [[nodiscard]] MDB_txn* txn() const { return txn_; }
    [[nodiscard]] Environment& env() const { return env_; }

  private:
    Environment& env_;
    MDB_txn* txn_ = nullptr;
};

/// A cursor that closes itself; ends before its transaction.
class Cursor {
  public:
    Cursor(MDB_txn* txn, MDB_dbi table, const Environment& env);
    ~Cursor() { mdb_cursor_close(cursor_); }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    /// False when there is no such entry.
    bool get(MDB_val& key, MDB_val& value, MDB_cursor_op op);
    void erase();

  private:
    MDB_cursor* cursor_ = nullptr;
    const Environment& env_;
};

/// Table access; any failure but a missing entry throws.
std::optional<std::string_view> table_get(MDB_txn* txn, MDB_dbi table, std::string_view key, const Environment& env);
void table_put(WriteTxn& write, MDB_dbi table, std::string_view key, std::string_view value);
/// False when there was no such entry.
bool table_erase(WriteTxn& write, MDB_dbi table, std::string_view key);

inline MDB_val to_val(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())}; // NOLINT: LMDB reads keys and values only
}
inline std::string_view to_view(const MDB_val& val) {
    return {static_cast<const char*>(val.mv_data), val.mv_size};
}

/// What a write may do when there is no room.
enum class Need {
    kMayFail, ///< a put: fails, and leaves the reserve to the others
    kMust,    ///< whatever makes room or keeps state: may use the reserve of the disk and make the map larger
};

/// Runs `work` in a write transaction and commits it; runs it again after room was made. So `work` changes nothing
/// but what stands in the transaction until it returned.
void write_store(Environment& env, ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work);

} // namespace kvr
