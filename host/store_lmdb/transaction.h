// SPDX-License-Identifier: MIT
// Transactions on the environment, and what is done to its tables within them. Read transactions are short: one that
// stays open keeps every page that was freed since from being used again, and the map fills.
#pragma once

#include <mutex>
#include <optional>
#include <string_view>

#include <lmdb.h>

#include "store_lmdb/environment.h"

namespace kvr {

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

} // namespace kvr
