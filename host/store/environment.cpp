// SPDX-License-Identifier: MIT
// The LMDB environment of a queue manager with its tables, and its transactions.
#include "environment.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_length.h"
#include "permissions.h"
#include "store_layout.h"
#include "system_error.h"

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
/// By how much the map grows for a write that must not fail.
constexpr std::uint64_t kMapStep = 16ULL << 20;

void check(int result, const char* doing, const Environment& env) {
    if (result != MDB_SUCCESS) {
        throw_mdb(doing, env.folder(), result);
    }
}

/// A write of which is not known whether it happened.
class UnknownOutcome : public Error {
  public:
    explicit UnknownOutcome(const Error& error)
        : Error(error.code(), std::string(error.what()) +
                                  "; whether the last write happened is not known: look before you repeat it") {}
};

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
    check(mdb_env_create(&env_), "set up the store", *this);
    try {
        check(mdb_env_set_maxreaders(env_, kMaxReaders), "set up the store", *this);
        check(mdb_env_set_maxdbs(env_, kTables), "set up the store", *this);
        if (map_size != 0) {
            check(mdb_env_set_mapsize(env_, map_size), "set the map size", *this);
        }
        // LMDB leaves a hole in it that it maps: on a full disk a store to that is a SIGBUS. Nobody in this process has
        // it open here, or closing it would give up LMDB's lock on it.
        ::close(open_allocated_file(folder_ / "lock.mdb", kReadersFileSize));
        // Read transactions are not tied to threads: one per getter and call, each begun and ended at will.
        check(mdb_env_open(env_, folder_.c_str(), MDB_NOTLS, kFileMode), "open the store", *this);
    } catch (...) {
        mdb_env_close(std::exchange(env_, nullptr));
        throw;
    }
    adopt_size();
    int fd = -1;
    struct stat file {};
    mdb_env_get_fd(env_, &fd);
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
        const OpeningLock lock(folder_, kCloseLimit);
        mdb_env_close(env_);
    } catch (const Error&) {
        static_cast<void>(0); // somebody is frozen while he opens it, or it was deleted: it closes with this process
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
    close();
}

void Environment::grow_map(std::uint64_t size) {
    const std::unique_lock lock(map_lock_);
    if (size > map_size_ && env_ != nullptr) {
        check(mdb_env_set_mapsize(env_, size), "make the map larger", *this);
        adopt_size();
    }
}

void Environment::adopt_map() {
    const std::unique_lock lock(map_lock_);
    if (env_ != nullptr) {
        check(mdb_env_set_mapsize(env_, 0), "adopt the larger map", *this);
        adopt_size();
    }
}

void Environment::set_flag(unsigned flag, bool on) {
    if (env_ != nullptr) {
        check(mdb_env_set_flags(env_, flag, on ? 1 : 0), "set the durability", *this);
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
            check(mdb_reader_check(env_, &dead), "clear stale readers", *this);
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

/// As WriteTxn::commit.
bool commit_something(Environment& env) {
    WriteTxn write(env);
    save_usage(write, load_usage(write.txn(), env));
    return write.commit();
}

/// What one transaction freed, LMDB uses again in the second one after it at the earliest. While every write fails for
/// want of room there is no such second one: a small one makes it. False when there is no room for that either.
bool free_what_was_freed_last(Environment& env) {
    try {
        static_cast<void>(commit_something(env)); // the next one makes it durable
        return true;
    } catch (const FullError&) {
        return false;
    }
}

/// As write_store, once.
void write_once(Environment& env, const std::function<void(WriteTxn&)>& work) {
    const bool durable = [&] {
        WriteTxn write(env);
        work(write);
        return write.commit();
    }();
    try {
        if (!durable && !commit_something(env)) {
            throw_system("flush the store", env.folder(), EIO);
        }
    } catch (const Error& error) {
        throw UnknownOutcome(error);
    }
}

} // namespace

void write_store(Environment& env, ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work) {
    env.count_commit();
    constexpr int kTries = 3;
    bool opened_anew = false;
    for (int attempt = 1;; ++attempt) {
        const std::uint64_t openings = env.openings();
        try {
            write_once(env, work);
            return;
        } catch (const FullError& error) {
            const bool cleared = env.clear_stale_readers() > 0;
            if (error.shortage() == Shortage::kQuota) {
                throw;
            }
            const bool aged = attempt == 1 && free_what_was_freed_last(env);
            if (attempt == kTries || (need == Need::kMayFail && !cleared && !aged)) {
                throw FullError(error.shortage(), error.what() + env.blame_reader());
            }
            if (need == Need::kMust && error.shortage() == Shortage::kMap) {
                env.grow_map(env.map_size() + kMapStep);
            } else if (need == Need::kMust) {
                reserve.release();
            }
        } catch (const UnknownOutcome&) {
            throw;
        } catch (const Error& error) {
            if (env.openings() == openings) {
                throw;
            }
            // What made it open the environment anew is not seen and is overwritten when it is done again. Where that
            // fails too, it may still come to light on the disk.
            if (std::exchange(opened_anew, true)) {
                throw UnknownOutcome(error);
            }
        }
    }
}

} // namespace kvr
