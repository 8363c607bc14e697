// SPDX-License-Identifier: MIT
// Makes and opens stores of this engine: one object for each folder and process.
#include "store_lmdb/lmdb_store.h"

#include <cerrno>
#include <condition_variable>
#include <system_error>

#include <sys/random.h>
#include <unistd.h>

#include "store/access.h"
#include "store/accounts.h"
#include "store/engine.h"
#include "store/permissions.h"
#include "store/qmgr_folder.h"
#include "store/system_error.h"
#include "store_lmdb/group_access.h"

namespace kvr {

namespace fs = std::filesystem;

namespace {

/// The process's open stores by folder. LMDB takes an environment once for each process; what a parent opened is not
/// for a forked child.
struct OpenStores {
    struct OpenStore {
        std::weak_ptr<LmdbStore> store;
        bool is_open = false; ///< until it is destroyed, which is later than its last user's end
    };
    std::mutex mutex;
    std::condition_variable closed;
    pid_t owner = 0;
    std::map<std::string, OpenStore> by_folder;
};

OpenStores& open_stores() {
    static auto* stores = new OpenStores; // never destroyed: a process may end in the middle of any call
    return *stores;
}

std::uint64_t random_id() {
    std::uint64_t id = 0;
    if (::getrandom(&id, sizeof id, 0) != sizeof id) {
        throw Error(Errc::kIo, "the system gives no random numbers");
    }
    return id;
}

void fill_folder(const fs::path& dir, const std::string& qmgr, const Settings& given) {
    const LmdbSettings settings = changed_settings({}, given);
    const StoreFiles files{dir};
    make_private_folder(files.store());
    make_private_folder(files.queues());
    {
        Environment env(files.store(), settings.map_size);
        env.open_tables(true);
        WriteTxn write(env);
        save_identity(write, {random_id(), qmgr});
        save_settings(write, settings);
        save_usage(write, 0);
        if (!write.commit()) {
            throw_system("make", files.store(), EIO);
        }
    }
    if (!ReserveFile(files.reserve()).ensure()) {
        throw_system("make", files.reserve(), ENOSPC);
    }
    sync_folder(files.store());
    sync_folder(files.dir);
    if (const auto group = given.find(kGroupSetting); group != given.end()) {
        share_store(files, group_named(group->second));
    }
}

/// A disk without room for what an opening needs gets that of the reserve.
std::unique_ptr<LmdbStore> open_with_reserve(const StoreFiles& files) {
    try {
        return std::make_unique<LmdbStore>(files.dir);
    } catch (const FullError&) {
        ReserveFile(files.reserve()).release();
        return std::make_unique<LmdbStore>(files.dir);
    }
}

/// Nobody opens the folder in this process until the store that was open there is gone wholly: one that closes its
/// files gives up all locks that the process has on them.
std::shared_ptr<LmdbStore> share(std::unique_ptr<LmdbStore> store, OpenStores::OpenStore& known) {
    const auto close = [&known, owner = ::getpid()](LmdbStore* closing) {
        delete closing;
        if (owner == ::getpid()) {
            const std::scoped_lock guard(open_stores().mutex);
            known.is_open = false;
            open_stores().closed.notify_all();
        }
    };
    std::shared_ptr<LmdbStore> shared(store.release(), close);
    known = {shared, true};
    return shared;
}

StoreIdentity read_identity(Environment& env) {
    Reader reader(env);
    StoreIdentity identity;
    {
        const ReadScope scope(reader);
        identity = load_identity(reader.txn(), env);
    }
    env.open_tables(false);
    return identity;
}

bool holds_store(const fs::path& dir) {
    std::error_code error;
    return fs::exists(StoreFiles{dir}.store(), error) || error;
}

std::shared_ptr<Store> open_store(const fs::path& dir) {
    std::error_code error;
    const fs::path folder = fs::weakly_canonical(dir, error);
    const StoreFiles files{error ? dir : folder};
    if (!fs::exists(files.store() / "data.mdb", error) && error.value() != EACCES) {
        throw Error(Errc::kNotFound, "there is no queue manager in " + files.dir.string() + ": create it first");
    }
    OpenStores& stores = open_stores();
    std::unique_lock guard(stores.mutex);
    if (stores.owner != ::getpid()) {
        stores.by_folder.clear();
        stores.owner = ::getpid();
    }
    OpenStores::OpenStore& known = stores.by_folder[files.dir.string()];
    std::shared_ptr<LmdbStore> store = known.store.lock();
    for (; known.is_open && !store; store = known.store.lock()) {
        stores.closed.wait(guard);
    }
    if (!store) {
        const Access access = check_access(files.dir);
        check_part(files.store(), true, access);
        check_part(files.queues(), true, access);
        check_part(files.store() / "data.mdb", false, access);
        if (fs::exists(files.store() / "lock.mdb", error)) {
            check_part(files.store() / "lock.mdb", false, access);
        }
        store = share(open_with_reserve(files), known);
    }
    return store;
}

void check_settings(const Settings& given) {
    static_cast<void>(changed_settings({}, given));
}

constexpr StoreEngine kEngine{
    .version = kEngineVersion, .check = check_settings, .fill = fill_folder, .exists = holds_store, .open = open_store};

} // namespace

LmdbStore::LmdbStore(const fs::path& dir)
    : files_{dir}, env_(files_.store(), std::nullopt), identity_(read_identity(env_)), reserve_(files_.reserve()),
      drain_locks_(files_.drain_locks()) {
    if (!env_.has_newer_tables()) {
        write(Need::kMust, [&](WriteTxn& write) { env_.make_newer_tables(write.txn()); });
    }
    const LmdbSettings now = lmdb_settings();
    env_.set_sync(now.sync);
    env_.grow_map(now.map_size);
}

LmdbSettings LmdbStore::lmdb_settings() const {
    Reader reader(env_);
    const ReadScope scope(reader);
    return load_settings(reader.txn(), env_);
}

Settings LmdbStore::settings() const {
    Settings texts = settings_as_texts(lmdb_settings());
    texts[kGroupSetting] = group_text(check_access(files_.dir).group);
    return texts;
}

void LmdbStore::change_group(std::optional<gid_t> group) {
    require_owner(files_.dir, "choose the group that may use it");
    const std::optional<gid_t> before = check_access(files_.dir).group;
    StoreLock& lock = env_.store_lock();
    lock.take_alone();
    try {
        if (before && group) {
            share_store(files_, {});
        }
        share_store(files_, group);
    } catch (...) {
        lock.share();
        throw;
    }
    const std::scoped_lock guard(marks_mutex_);
    marks_.clear(); // other files can have taken the place of those of members
    claims_.clear();
    lock.share();
}

void LmdbStore::change_settings(const Settings& changes) {
    LmdbSettings now = changed_settings(lmdb_settings(), changes); // refused before anything is done
    if (const auto group = changes.find(kGroupSetting); group != changes.end()) {
        change_group(group_named(group->second));
    }
    env_.set_sync(true); // the change itself is flushed in any case
    write(Need::kMust, [&](WriteTxn& write) {
        now = changed_settings(load_settings(write.txn(), env_), changes);
        save_settings(write, now);
    });
    env_.grow_map(now.map_size);
    env_.set_sync(now.sync);
}

std::optional<Owner> LmdbStore::frozen_writer() {
    const pid_t writer = env_.store_lock().frozen_writer();
    return writer != 0 ? std::optional(local_owner(writer)) : std::nullopt;
}

Usage LmdbStore::usage() {
    Reader reader(env_);
    const ReadScope scope(reader);
    std::error_code error;
    const std::uintmax_t file = fs::file_size(files_.store() / "data.mdb", error);
    return {.bytes = load_usage(reader.txn(), env_),
            .quota = load_settings(reader.txn(), env_).quota,
            .file = error ? 0 : file};
}

void LmdbStore::destroy(bool purge) {
    env_.store_lock().take_alone();
    std::uint64_t messages = 0;
    for (const QueueInfo& queue : queues()) {
        messages += queue.depth;
    }
    if (messages > 0 && !purge) {
        env_.store_lock().share();
        throw Error(Errc::kBusy, qmgr() + " has " + std::to_string(messages) +
                                     " messages on its queues: take them off, or have them deleted, too");
    }
    delete_qmgr_folder(files_.dir);
}

std::shared_ptr<MarkFile> LmdbStore::mark(std::uint32_t queue) {
    const std::scoped_lock guard(marks_mutex_);
    std::shared_ptr<MarkFile>& mark = marks_[queue];
    if (!mark) {
        mark = std::make_shared<MarkFile>(files_.mark(queue), identity_.id, queue);
    }
    return mark;
}

std::shared_ptr<ClaimsFile> LmdbStore::claims(std::uint32_t queue) {
    const std::scoped_lock guard(marks_mutex_);
    std::shared_ptr<ClaimsFile>& claims = claims_[queue];
    if (!claims) {
        claims = std::make_shared<ClaimsFile>(files_.claims(queue), identity_.id, queue);
    }
    return claims;
}

} // namespace kvr

extern "C" const kvr::StoreEngine* kavro_store_engine() {
    return &kvr::kEngine;
}
