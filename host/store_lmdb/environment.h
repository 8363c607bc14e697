// SPDX-License-Identifier: MIT
// The LMDB environment of a queue manager with its tables. Each Environment belongs to the process that opened it; a
// forked child opens its own.
//
// A head page that cannot be written makes LMDB refuse everything from then on. The environment is then opened anew by
// whoever begins the next transaction. So LMDB's handle is used within a transaction or under the map's lock only.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <lmdb.h>
#include <sys/types.h>

#include "store_lmdb/access_locks.h"

namespace kvr {

/// Bytes of the map that a reader takes in before it lets its pages go; the kernel maps more around them.
constexpr std::uint64_t kReadBeforeDrop = 4ULL << 20;

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
    /// False for a store that was made before there were all of `kept`, `taken` and `given_back`: they are to be made
    /// at its opening, so that all who have it open see what they will hold.
    [[nodiscard]] bool has_newer_tables() const { return given_back != 0; }
    void make_newer_tables(MDB_txn* txn);

    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
    /// Null after it could not be opened anew.
    [[nodiscard]] MDB_env* handle() const { return env_; }

    MDB_dbi main = 0;       ///< settings and usage of the store
    MDB_dbi objects = 0;    ///< class NUL name → attributes
    MDB_dbi queues = 0;     ///< name → queue record
    MDB_dbi messages = 0;   ///< queue id, sequence → message record
    MDB_dbi held = 0;       ///< queue id, sequence of a message that is held → reason
    MDB_dbi kept = 0;       ///< queue id, last sequence of a range of used messages → what is known of the range
    MDB_dbi taken = 0;      ///< number of a put → identities of its messages
    MDB_dbi given_back = 0; ///< queue id, sequence of a message that takers gave back → how often

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
    /// Of those that came after the first ones.
    [[nodiscard]] std::vector<std::pair<const char*, MDB_dbi*>> newer_tables() {
        return {{"kept", &kept}, {"taken", &taken}, {"given_back", &given_back}};
    }
    void open_table_set(bool create, const std::vector<std::pair<const char*, MDB_dbi*>>& tables);

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

} // namespace kvr
