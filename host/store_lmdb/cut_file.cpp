// SPDX-License-Identifier: MIT
#include "store_lmdb/cut_file.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>

#include <lmdb.h>
#include <sys/stat.h>

#include "store/system_error.h"
#include "store_lmdb/mdb_error.h"
#include "store_lmdb/transaction.h"

namespace kvr {

namespace {

std::uint64_t size_of(const std::filesystem::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        throw_system("find", file, errno);
    }
    return static_cast<std::uint64_t>(info.st_size);
}

struct Extent {
    std::uint64_t page_size;
    std::uint64_t pages; ///< as the newest head page counts them
    std::uint64_t bytes; ///< of the file
    [[nodiscard]] std::uint64_t present() const { return bytes / page_size; }
    [[nodiscard]] bool whole() const { return present() >= pages; }
};

/// The head first: the file only grows, and before the head that says so.
Extent extent_of(const Environment& env, const std::filesystem::path& file) {
    MDB_envinfo info{};
    MDB_stat stat{};
    mdb_env_info(env.handle(), &info);
    mdb_env_stat(env.handle(), &stat);
    return {stat.ms_psize, info.me_last_pgno + 1, size_of(file)};
}

thread_local sigjmp_buf* t_missing_page = nullptr;

extern "C" void on_missing_page(int signal) {
    if (t_missing_page != nullptr) {
        siglongjmp(*t_missing_page, 1);
    }
    (void)::signal(signal, SIG_DFL); // not ours: it comes again and ends the process
}

/// Free pages from number `first` on. Nothing here may need a destructor: a missing page is left by a jump.
std::uint64_t count_free_pages(MDB_cursor* cursor, std::uint64_t first) {
    std::uint64_t found = 0;
    MDB_val key{};
    MDB_val value{}; // a count and that many page numbers
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == MDB_SUCCESS) {
        for (std::size_t at = sizeof(std::size_t); at + sizeof(std::size_t) <= value.mv_size;
             at += sizeof(std::size_t)) {
            std::size_t page = 0;
            std::memcpy(&page, static_cast<const char*>(value.mv_data) + at, sizeof page);
            found += page >= first ? 1U : 0U;
        }
    }
    return found;
}

/// As above, and 0 when the list of free pages is itself among what is missing.
std::uint64_t count_free_pages_if_there(MDB_txn* txn, std::uint64_t first) {
    constexpr MDB_dbi kFreePages = 0;
    MDB_cursor* cursor = nullptr;
    if (mdb_cursor_open(txn, kFreePages, &cursor) != MDB_SUCCESS) {
        return 0;
    }
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = on_missing_page;
    sigjmp_buf missing_page;
    volatile std::uint64_t found = 0;
    if (sigsetjmp(missing_page, 1) == 0) {
        t_missing_page = &missing_page;
        (void)::sigaction(SIGBUS, &action, &before);
        found = count_free_pages(cursor, first);
    }
    (void)::sigaction(SIGBUS, &before, nullptr);
    t_missing_page = nullptr;
    mdb_cursor_close(cursor);
    return found;
}

} // namespace

void check_not_empty(const std::filesystem::path& file) {
    if (size_of(file) == 0) {
        throw Error(Errc::kDamaged, file.string() + " is empty: restore the queue manager's folder from its backup");
    }
}

void check_not_cut(Environment& env, const std::filesystem::path& file) {
    if (extent_of(env, file).whole()) {
        return;
    }
    const WriteTxn no_writer(env); // head, file and list of free pages of one state
    const Extent extent = extent_of(env, file);
    MDB_txn* txn = nullptr;
    if (const int result = mdb_txn_begin(env.handle(), nullptr, MDB_RDONLY, &txn); result != MDB_SUCCESS) {
        throw_mdb("begin a transaction", env.folder(), result);
    }
    const std::uint64_t free_pages = count_free_pages_if_there(txn, extent.present());
    mdb_txn_abort(txn);
    if (extent.present() + free_pages < extent.pages) {
        throw Error(Errc::kDamaged, file.string() + " was cut, it has " + std::to_string(extent.bytes) + " of " +
                                        std::to_string(extent.pages * extent.page_size) +
                                        " bytes: restore the queue manager's folder from its backup");
    }
}

} // namespace kvr
