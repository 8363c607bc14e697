// SPDX-License-Identifier: MIT
#include "store_lmdb/write_store.h"

#include <cerrno>
#include <string>
#include <utility>

#include "store/system_error.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/store_layout.h"

namespace kvr {

namespace {

/// By how much the map grows for a write that must not fail.
constexpr std::uint64_t kMapStep = 16ULL << 20;

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

/// After a write that found no room. True when it is worth doing it again.
///
/// First comes what costs nothing: pages that dead readers kept, and those that the last transaction freed. Only a
/// write that must not fail then gets what was kept back for it: a larger map where the map is full, the reserve's
/// blocks where the disk is.
bool make_room(Environment& env, const ReserveFile& reserve, Need need, Shortage shortage, bool first_time) {
    const bool cleared = env.clear_stale_readers() > 0;
    const bool freed = first_time && free_what_was_freed_last(env);
    if (need == Need::kMayFail) {
        return cleared || freed;
    }
    if (shortage == Shortage::kStore) {
        env.grow_map(env.map_size() + kMapStep);
    } else {
        reserve.release();
    }
    return true;
}

} // namespace

void write_store(Environment& env, const ReserveFile& reserve, Need need, const std::function<void(WriteTxn&)>& work) {
    env.count_commit();
    constexpr int kTries = 3;
    bool repeated = false;
    for (int attempt = 1;; ++attempt) {
        const std::uint64_t openings = env.openings();
        try {
            write_once(env, work);
            return;
        } catch (const FullError& error) {
            if (error.shortage() == Shortage::kQuota) {
                throw;
            }
            if (attempt == kTries || !make_room(env, reserve, need, error.shortage(), attempt == 1)) {
                throw FullError(error.shortage(), error.what() + env.blame_reader());
            }
        } catch (const UnknownOutcome&) {
            throw;
        } catch (const Error& error) {
            // A write that failed is over, unless its failure made LMDB refuse the environment, so that it was opened
            // anew meanwhile. Then what the write left on the disk is not seen by anybody, and doing it again
            // overwrites it. When that fails as well, what is left on the disk may yet be taken for valid.
            if (env.openings() == openings) {
                throw;
            }
            if (std::exchange(repeated, true)) {
                throw UnknownOutcome(error);
            }
        }
    }
}

} // namespace kvr
