// SPDX-License-Identifier: MIT
// Makes and opens stores: one object for each folder and process.
#include "store.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <sys/random.h>
#include <unistd.h>

#include "names.h"
#include "permissions.h"
#include "store_impl.h"
#include "system_error.h"

namespace kvr {

namespace fs = std::filesystem;

namespace {

/// The process's open stores by folder. LMDB takes an environment once for each process; what a parent opened is not
/// for a forked child.
struct OpenStores {
    std::mutex mutex;
    pid_t owner = 0;
    std::map<std::string, std::weak_ptr<StoreImpl>> by_folder;
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

void fill_folder(const StoreFiles& files, const std::string& qmgr, const Settings& settings) {
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
}

/// A disk without room for what an opening needs gets that of the reserve.
std::shared_ptr<StoreImpl> open_with_reserve(const StoreFiles& files) {
    try {
        return std::make_shared<StoreImpl>(files.dir);
    } catch (const FullError&) {
        ReserveFile(files.reserve()).release();
        return std::make_shared<StoreImpl>(files.dir);
    }
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

} // namespace

void Store::create(const fs::path& dir, const std::string& qmgr, const Settings& settings) {
    check_name("queue manager", qmgr, kMaxQmgrName);
    check_settings(settings);
    const fs::path target = fs::absolute(dir).lexically_normal();
    const fs::path parent = target.parent_path();
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) {
        throw Error(Errc::kExists, target.string() + " exists already: choose another name or delete it first");
    }
    if (!fs::exists(parent, error)) {
        make_private_folder(parent);
    }
    // Built aside and renamed: a crash leaves no half-made queue manager behind.
    std::string aside = target.filename().string();
    aside.insert(0, 1, '.').append(".").append(std::to_string(::getpid()));
    const StoreFiles files{parent / aside};
    fs::remove_all(files.dir, error);
    make_private_folder(files.dir);
    try {
        fill_folder(files, qmgr, settings);
        if (::rename(files.dir.c_str(), target.c_str()) != 0) {
            throw_system("make", target, errno);
        }
    } catch (...) {
        fs::remove_all(files.dir, error);
        throw;
    }
    sync_folder(parent);
}

std::shared_ptr<Store> Store::open(const fs::path& dir) {
    std::error_code error;
    const fs::path folder = fs::weakly_canonical(dir, error);
    const StoreFiles files{error ? dir : folder};
    if (!fs::exists(files.store() / "data.mdb", error) && error.value() != EACCES) {
        throw Error(Errc::kNotFound, "there is no queue manager in " + files.dir.string() + ": create it first");
    }
    OpenStores& stores = open_stores();
    const std::scoped_lock guard(stores.mutex);
    if (stores.owner != ::getpid()) {
        stores.by_folder.clear();
        stores.owner = ::getpid();
    }
    std::weak_ptr<StoreImpl>& known = stores.by_folder[files.dir.string()];
    std::shared_ptr<StoreImpl> store = known.lock();
    if (!store) {
        check_private(files.dir, true);
        check_private(files.store(), true);
        check_private(files.queues(), true);
        check_private(files.store() / "data.mdb", false);
        if (fs::exists(files.store() / "lock.mdb", error)) {
            check_private(files.store() / "lock.mdb", false);
        }
        store = open_with_reserve(files);
        known = store;
    }
    return store;
}

StoreImpl::StoreImpl(const fs::path& dir)
    : files_{dir}, env_(files_.store(), std::nullopt), identity_(read_identity(env_)), reserve_(files_.reserve()),
      drain_locks_(files_.drain_locks()) {
    const Settings now = settings();
    env_.set_sync(now.sync);
    env_.grow_map(now.map_size);
}

Settings StoreImpl::settings() const {
    Reader reader(env_);
    const ReadScope scope(reader);
    return load_settings(reader.txn(), env_);
}

void StoreImpl::set_settings(const Settings& settings) {
    check_settings(settings);
    env_.grow_map(settings.map_size);
    env_.set_sync(settings.sync);
    write(Need::kMust, [&](WriteTxn& write) { save_settings(write, settings); });
}

Usage StoreImpl::usage() {
    Reader reader(env_);
    const ReadScope scope(reader);
    std::error_code error;
    const std::uintmax_t file = fs::file_size(files_.store() / "data.mdb", error);
    return {.bytes = load_usage(reader.txn(), env_),
            .quota = load_settings(reader.txn(), env_).quota,
            .file = error ? 0 : file};
}

void StoreImpl::destroy(bool purge) {
    env_.store_lock().take_alone();
    std::uint64_t messages = 0;
    for (const QueueInfo& queue : queues()) {
        messages += queue.depth;
    }
    if (messages > 0 && !purge) {
        throw Error(Errc::kBusy, qmgr() + " has " + std::to_string(messages) +
                                     " messages on its queues: take them off, or have them deleted, too");
    }
    // Moved aside first: whoever opens it finds all of it or nothing.
    std::string aside = files_.dir.filename().string();
    aside.insert(0, 1, '.').append(".deleted.").append(std::to_string(::getpid()));
    const fs::path gone = files_.dir.parent_path() / aside;
    if (::rename(files_.dir.c_str(), gone.c_str()) != 0) {
        throw_system("delete", files_.dir, errno);
    }
    std::error_code error;
    fs::remove_all(gone, error);
    if (error) {
        throw Error(Errc::kIo, gone.string() + " is what is left of it and cannot be deleted (" + error.message() +
                                   "): remove it by hand");
    }
    sync_folder(gone.parent_path());
}

std::shared_ptr<MarkFile> StoreImpl::mark(std::uint32_t queue) {
    const std::scoped_lock guard(marks_mutex_);
    std::shared_ptr<MarkFile>& mark = marks_[queue];
    if (!mark) {
        mark = std::make_shared<MarkFile>(files_.mark(queue), identity_.id, queue);
    }
    return mark;
}

} // namespace kvr
