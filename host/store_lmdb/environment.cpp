// SPDX-License-Identifier: MIT
#include "store_lmdb/environment.h"

#include <cerrno>
#include <fstream>
#include <limits>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/permissions.h"
#include "store/system_error.h"
#include "store/waits.h"
#include "store_lmdb/cut_file.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/transaction.h"

namespace kvr {

namespace {

constexpr unsigned kMaxReaders = 512;
constexpr unsigned kTables = 8;
constexpr mdb_mode_t kFileMode = 0600;
/// Of the file in which LMDB keeps its readers: a cache line for each and two more.
constexpr off_t kReadersFileSize = (off_t{kMaxReaders} + 2) * 64;
/// For a get and the look-ups beside it: a worker reads on where it has neither a descriptor left for the opening lock
/// nor the time to wait for it.
constexpr int kKeptSlots = 2;
/// A reader that was killed keeps pages from being used again until somebody looks: each process looks this often.
constexpr std::uint64_t kCommitsPerReaderCheck = 256;
constexpr std::uint64_t kCommitsPerDrop = 16;
/// Transactions that a reader may lag behind in the course of things.
constexpr std::uint64_t kUsualLag = 8;
constexpr std::chrono::seconds kCloseLimit{2};
/// No work waits for longer before it looks for readers that died: the next one looks again.
constexpr std::chrono::milliseconds kClearLimit{100};

struct OldestReader {
    long pid = 0;
    std::uint64_t txn = std::numeric_limits<std::uint64_t>::max() - kUsualLag;
};

/// Takes a line of LMDB's list: process, thread, transaction ("-" for none).
int note_reader(const char* line, void* context) {
    auto& oldest = *static_cast<OldestReader*>(context);
    std::istringstream fields(line);
    OldestReader reader;
    std::string thread;
    if (fields >> reader.pid >> thread >> reader.txn && reader.txn < oldest.txn) {
        oldest = reader;
    }
    return 0;
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
        std::string skipped;
        char dash = 0;
        fields >> std::hex >> start >> dash >> skipped >> skipped >> offset;
        const std::size_t path = line.find('/');
        // Not the device of the list: some file systems show another one there than to fstat.
        struct stat mapped {};
        if (fields && offset == 0 && path != std::string::npos && line.ends_with("data.mdb") &&
            ::stat(line.c_str() + path, &mapped) == 0 && mapped.st_dev == file.st_dev && mapped.st_ino == file.st_ino) {
            return reinterpret_cast<void*>(start); // NOLINT: the system tells addresses as numbers
        }
    }
    return nullptr;
}

} // namespace

Environment::Environment(std::filesystem::path folder, std::optional<std::uint64_t> map_size)
    : folder_(std::move(folder)), store_lock_(folder_) {
    const std::filesystem::path file = folder_ / "data.mdb";
    if (!map_size) {
        check_not_empty(file);
    }
    open(map_size.value_or(0), OpeningLock(folder_));
    try {
        make_private_file(file);
        clear_stale_readers();
        check_not_cut(*this, file);

        const OpeningLock opening(folder_);
        open_table_set(false, {{nullptr, &main}});
    } catch (...) {
        close();
        throw;
    }
}

/// `map_size` 0: what it was.
void Environment::open(std::uint64_t map_size, const OpeningLock& /*held*/) {
    check_mdb(mdb_env_create(&env_), "set up the store", folder_);
    try {
        check_mdb(mdb_env_set_maxreaders(env_, kMaxReaders), "set up the store", folder_);
        check_mdb(mdb_env_set_maxdbs(env_, kTables), "set up the store", folder_);
        if (map_size != 0) {
            check_mdb(mdb_env_set_mapsize(env_, map_size), "set the map size", folder_);
        }
        // LMDB leaves a hole in it that it maps: on a full disk a store to that is a SIGBUS. Nobody in this process has
        // it open here, or closing it would give up LMDB's lock on it.
        open_allocated_file(folder_ / "lock.mdb", kReadersFileSize).reset();
        // Read transactions are not tied to threads: one per getter and call, each begun and ended at will.
        check_mdb(mdb_env_open(env_, folder_.c_str(), MDB_NOTLS, kFileMode), "open the store", folder_);
    } catch (...) {
        mdb_env_close(std::exchange(env_, nullptr));
        throw;
    }
    adopt_size();
    int fd = -1;
    struct stat file {};
    mdb_env_get_fd(env_, &fd);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC); // of its descriptors the library leaves this one to the programs that are run
    ::fstat(fd, &file);
    device_ = file.st_dev;
    inode_ = file.st_ino;
    keep_slots();
}

void Environment::keep_slots() {
    const std::scoped_lock guard(readers_mutex_);
    for (int i = 0; i < kKeptSlots; ++i) {
        MDB_txn* txn = nullptr;
        if (mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn) == MDB_SUCCESS) { // else the first who reads is told
            mdb_txn_reset(txn);
            ended_.push_back(txn);
        }
    }
}

void Environment::check_in_place() const {
    const std::filesystem::path path = folder_ / "data.mdb";
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0 && errno != ENOENT && errno != ENOTDIR) {
        throw_system("find", path, errno);
    }
    if (file.st_dev != device_ || file.st_ino != inode_) {
        throw Error(Errc::kDamaged, path.string() + " was removed, moved or replaced while this process had it open, "
                                                    "and nothing was written: put it back, or start this process "
                                                    "anew to use what is there now");
    }
}

void Environment::close() {
    for (MDB_txn* const txn : ended_) {
        mdb_txn_abort(txn);
    }
    ended_.clear();
    try {
        std::optional<OpeningLock> lock;
        if (std::error_code unknown; std::filesystem::exists(folder_, unknown) || unknown) {
            lock.emplace(folder_, kCloseLimit);
        } // else it was deleted, and nobody else opens or closes it
        mdb_env_close(env_);
    } catch (const Error&) {
        static_cast<void>(0); // somebody is frozen while he opens it: it closes with this process
    }
}

void Environment::adopt_size() {
    MDB_envinfo info{};
    mdb_env_info(env_, &info);
    map_size_ = info.me_mapsize;
    map_start_ = nullptr;
}

void Environment::reopen(const MDB_env* failed) {
    const std::unique_lock lock(map_lock_);
    if (env_ != failed) {
        return;
    }
    check_in_place();
    const OpeningLock opening(folder_);
    {
        const std::scoped_lock guard(readers_mutex_);
        for (Reader* const reader : readers_) {
            reader->forget();
        }
        for (MDB_txn* const txn : ended_) {
            mdb_txn_abort(txn);
        }
        ended_.clear();
    }
    if (env_ != nullptr) {
        mdb_env_close(std::exchange(env_, nullptr));
    }
    open(map_size_, opening);
    try {
        open_table_set(false, {{nullptr, &main}});
        open_all_tables(false);
        set_flag(MDB_NOSYNC, !sync_);
    } catch (...) {
        mdb_env_close(std::exchange(env_, nullptr));
        throw;
    }
    ++openings_;
    tell("the store in " + folder_.string() + " was opened anew: a write to its disk had failed, look after the disk");
}

void Environment::open_tables(bool create) {
    const OpeningLock opening(folder_);
    open_all_tables(create);
}

void Environment::open_all_tables(bool create) {
    open_table_set(create, {{"objects", &objects}, {"queues", &queues}, {"messages", &messages}, {"held", &held}});
    try {
        open_table_set(create, newer_tables());
    } catch (const Error& error) {
        if (create || error.code() != Errc::kDamaged) {
            throw; // else the store was made before there were these
        }
    }
}

void Environment::make_newer_tables(MDB_txn* txn) {
    for (const auto& [name, table] : newer_tables()) {
        check_mdb(mdb_dbi_open(txn, name, MDB_CREATE, table), "make the tables", folder_);
    }
}

void Environment::open_table_set(bool create, const std::vector<std::pair<const char*, MDB_dbi*>>& tables) {
    MDB_txn* txn = nullptr;
    check_mdb(mdb_txn_begin(env_, nullptr, create ? 0U : MDB_RDONLY, &txn), "begin a transaction", folder_);
    for (const auto& [name, table] : tables) {
        if (const int result = mdb_dbi_open(txn, name, create ? MDB_CREATE : 0U, table); result != MDB_SUCCESS) {
            mdb_txn_abort(txn);
            throw_mdb("open the tables", folder_, result);
        }
    }
    check_mdb(mdb_txn_commit(txn), "open the tables", folder_);
}

Environment::~Environment() {
    close();
}

void Environment::grow_map(std::uint64_t size) {
    const std::unique_lock lock(map_lock_);
    if (size > map_size_ && env_ != nullptr) {
        check_mdb(mdb_env_set_mapsize(env_, size), "make the map larger", folder_);
        adopt_size();
    }
}

void Environment::adopt_map() {
    const std::unique_lock lock(map_lock_);
    if (env_ != nullptr) {
        check_mdb(mdb_env_set_mapsize(env_, 0), "adopt the larger map", folder_);
        adopt_size();
    }
}

void Environment::set_flag(unsigned flag, bool on) {
    if (env_ != nullptr) {
        check_mdb(mdb_env_set_flags(env_, flag, on ? 1 : 0), "set the durability", folder_);
    }
}

void Environment::set_sync(bool sync) {
    const std::unique_lock lock(map_lock_);
    sync_ = sync;
    set_flag(MDB_NOSYNC, !sync);
}

void Environment::set_late_flush(bool late) {
    const std::shared_lock lock(map_lock_);
    set_flag(MDB_NOMETASYNC, late);
}

MDB_txn* Environment::add(Reader& reader) {
    const std::scoped_lock guard(readers_mutex_);
    ended_.reserve(ended_.size() + readers_.size() + 1); // remove() finds room
    readers_.insert(&reader);
    if (ended_.empty()) {
        return nullptr;
    }
    MDB_txn* const txn = ended_.back();
    ended_.pop_back();
    return txn;
}

void Environment::remove(Reader& reader, MDB_txn* ended) {
    const std::scoped_lock guard(readers_mutex_);
    readers_.erase(&reader);
    if (ended != nullptr) {
        ended_.push_back(ended);
    }
}

int Environment::clear_stale_readers() {
    const std::shared_lock lock(map_lock_);
    int dead = 0;
    try {
        if (env_ != nullptr) {
            const OpeningLock turn(folder_, kClearLimit);
            check_mdb(mdb_reader_check(env_, &dead), "clear stale readers", folder_);
        }
    } catch (const Error& error) {
        if (error.code() != Errc::kBusy) {
            throw;
        }
    }
    return dead;
}

std::string Environment::blame_reader() {
    const std::shared_lock lock(map_lock_);
    OldestReader oldest;
    MDB_envinfo info{};
    if (env_ == nullptr || mdb_reader_list(env_, note_reader, &oldest) < 0 || mdb_env_info(env_, &info) != 0 ||
        oldest.txn + kUsualLag > info.me_last_txnid) {
        return {};
    }
    return "; process " + std::to_string(oldest.pid) + " still reads what was there " +
           std::to_string(info.me_last_txnid - oldest.txn) +
           " transactions ago, and so keeps the room of all that was deleted since: if it is stopped, let it go on "
           "(kill -CONT) or end it";
}

void Environment::drop_pages() {
    void* start = map_start_.load(std::memory_order_acquire);
    if (start == nullptr && env_ != nullptr) {
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

} // namespace kvr
