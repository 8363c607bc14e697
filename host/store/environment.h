// SPDX-License-Identifier: MIT
// The LMDB environment of a queue manager with its tables, and its transactions.
//
// Read transactions are short: one that stays open keeps every page that was freed since from being used again, and the
// map fills. Each Environment belongs to the process that opened it; a forked child opens its own.
//
// A head page that cannot be written makes LMDB refuse everything from then on. The environment is then opened anew by
// whoever begins the next transaction. So LMDB's handle is used within a transaction or under the map's lock only.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <lmdb.h>
#include <sys/types.h>

#include "access_locks.h"
#include "reserve_file.h"

namespace kvr {

class Reader;

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
    /// Null after it could not be opened anew.
    [[nodiscard]] MDB_env* handle() const { return env_; }

    MDB_dbi main = 0;     ///< settings and usage of the store
    MDB_dbi objects = 0;  ///< class NUL name → attributes
    MDB_dbi queues = 0;   ///< name → queue record
    MDB_dbi messages = 0; ///< queue id, sequence → message record
    MDB_dbi held = 0;     ///< queue id, sequence of a message that is held → reason

    /// Makes the map at least this large. No transaction of the calling thread may be open.
    void grow_map(std::uint64_t size);
    [[nodiscard]] std::uint64_t map_size() const { return map_size_; }
    /// Adopts a map that another process made larger.
    void adopt_map();
    /// Opens anew what LMDB refuses to use since a write of its head failed, unless that was done since `failed` was
    /// the handle. No transaction of the calling thread may be open. Tells so.
    void reopen(const MDB_env* failed);
    /// Throws kDamaged when the file that is open is no longer the store's: it was removed, moved or replaced.
    void check_in_place() const;
    /// How often it was opened anew.
    [[nodiscard]] std::uint64_t openings() const { return openings_; }
    void set_sync(bool sync);
    /// True: a commit flushes its data and leaves the flush of the page that makes it valid to the next commit.
    void set_late_flush(bool late);
    /// Frees the slots of readers that died, unless another process is at it. Returns how many.
    int clear_stale_readers();
    /// Whose read transaction keeps pages from being used again, as the end of an error's text; empty when nobody's.
    std::string blame_reader();
    /// Lets go of the mapped pages that were read: they count as this process's memory. They stay in the system's
    /// cache. Within a transaction or under the map's lock; no transaction is disturbed.
    void drop_pages();

    /// Held by every open transaction, so that the map moves under none.
    std::shared_mutex& map_lock() { return map_lock_; }
    StoreLock& store_lock() { return store_lock_; }
    /// The environment's readers: their transactions end when it is opened anew.
    /// Returns the transaction of a reader that ended, if there is one: its place among LMDB's readers is kept, because
    /// taking one means waiting in front of LMDB (access_locks.h). Null otherwise.
    MDB_txn* add(Reader& reader);
    void remove(Reader& reader, MDB_txn* ended);
    /// Lets go of pages every few commits: a write reads some, wherever it goes.
    void count_commit();

  private:
    void open(std::uint64_t map_size, const OpeningLock& held);
    void keep_slots();
    void close();
    void adopt_size();
    void set_flag(unsigned flag, bool on);
    void open_all_tables(bool create);
    void open_table_set(bool create, std::initializer_list<std::pair<const char*, MDB_dbi*>> tables);

    std::filesystem::path folder_;
    StoreLock store_lock_;
    MDB_env* env_ = nullptr;
    bool sync_ = true;
    dev_t device_ = 0; ///< with inode_: the file that is open
    ino_t inode_ = 0;
    std::atomic<std::uint64_t> openings_{0};
    std::atomic<std::uint64_t> map_size_{0};
    std::atomic<void*> map_start_{nullptr}; ///< null: not looked up since the map moved
    std::atomic<std::uint64_t> commits_{0};
    std::shared_mutex map_lock_;
    std::mutex readers_mutex_;
    std::set<Reader*> readers_;
    std::vector<MDB_txn*> ended_;
};

/// A read transaction that is begun and ended many times at little cost. Ended between calls.
class Reader {
  public:
    explicit Reader(Environment& env) : env_(env), txn_(env.add(*this)) {}
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void begin();
    void end();
    [[nodiscard]] MDB_txn* txn() const { return txn_; }
    [[nodiscard]] Environment& env() const { return env_; }
    /// Bytes of the file that hold nothing any more. Walks the list of free pages: for a disk that is full only.
    [[nodiscard]] std::uint64_t free_bytes() const;
    /// Gives back what a reader keeps between transactions; none of its own may be open.
    void forget();

  private:
    Environment& env_;
    MDB_txn* txn_; ///< null before its first begin
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

    /// True: it is durable. False: it is there, but its last flush failed, so that it is durable after another commit.
    /// It certainly did not happen when this throws, unless the text says that this is not known.
    [[nodiscard]] bool commit();
    [[nodiscard]] MDB_txn* txn() const { return txn_; }
    [[nodiscard]] Environment& env() const { return env_; }

  private:
    bool happened(std::size_t id);

    Environment& env_;
    std::unique_lock<StoreLock> turn_;
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

/// Runs `work` in a write transaction and commits it; runs it again after room was made or the environment was opened
/// anew. So `work` changes nothing but what stands in the transaction until it returned.
void write_store(Environment& env, ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work);

} // namespace kvr
