// SPDX-License-Identifier: MIT
// The store in an LMDB environment of its own: lmdb_store.cpp makes and opens it, objects.cpp, queues.cpp, puts.cpp,
// units.cpp and messages.cpp hold its operations, getter.h the drainer of a queue, taker.h one of its takers.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "store/store.h"
#include "store_lmdb/claims_file.h"
#include "store_lmdb/drain_lock.h"
#include "store_lmdb/kept_ranges.h"
#include "store_lmdb/mark_file.h"
#include "store_lmdb/queue_record.h"
#include "store_lmdb/store_layout.h"
#include "store_lmdb/taken_once.h"
#include "store_lmdb/write_store.h"

namespace kvr {

class LmdbStore final : public Store, public std::enable_shared_from_this<LmdbStore> {
  public:
    explicit LmdbStore(const std::filesystem::path& dir);

    [[nodiscard]] const std::string& qmgr() const override { return identity_.qmgr; }
    [[nodiscard]] const std::filesystem::path& dir() const override { return files_.dir; }
    [[nodiscard]] std::uint64_t seed() const override { return identity_.id; }
    [[nodiscard]] Settings settings() const override;
    void change_settings(const Settings& changes) override;
    [[nodiscard]] Usage usage() override;
    [[nodiscard]] std::optional<Owner> frozen_writer() override;
    void destroy(bool purge) override;

    void object_add(const std::string& cls, const std::string& name, const Attributes& attrs) override;
    [[nodiscard]] Attributes object_get(const std::string& cls, const std::string& name) override;
    void object_set(const std::string& cls, const std::string& name, const Attributes& attrs) override;
    void object_delete(const std::string& cls, const std::string& name) override;
    [[nodiscard]] std::vector<std::string> object_names(const std::string& cls) override;

    void queue_define(const std::string& name, const std::string& description) override;
    void queue_set(const std::string& name, const std::string& description) override;
    void queue_delete(const std::string& name, bool purge) override;
    [[nodiscard]] QueueInfo queue_info(const std::string& name) override;
    [[nodiscard]] std::vector<QueueInfo> queues() override;

    void put(const std::string& queue, std::span<const OutgoingMessage> messages) override;
    std::vector<bool> put_once(const std::string& queue, std::span<const OutgoingMessage> messages,
                               std::span<const MessageIdentity> identities, std::uint64_t remember) override;
    void browse(const std::string& queue, std::uint64_t from,
                const std::function<bool(const StoredMessage&)>& visit) override;
    void browse_kept(const std::string& queue, std::uint64_t from,
                     const std::function<bool(const StoredMessage&)>& visit) override;
    std::uint64_t release_held(const std::string& queue) override;
    std::uint64_t replay(const std::string& queue, std::span<const Places> places) override;
    using Store::drain;
    [[nodiscard]] std::unique_ptr<Getter> drain(const std::string& queue, const DrainOptions& options) override;

    [[nodiscard]] std::unique_ptr<Taker> take_from(const std::string& queue) override;
    void commit(std::span<const UnitPut> puts, std::span<const UnitTake> takes) override;

    // For the getter and the takers.
    [[nodiscard]] Environment& env() { return env_; }
    [[nodiscard]] DrainLocks& drain_locks() { return drain_locks_; }
    [[nodiscard]] const StoreFiles& files() const { return files_; }
    [[nodiscard]] std::shared_ptr<MarkFile> mark(std::uint32_t queue);
    [[nodiscard]] std::shared_ptr<ClaimsFile> claims(std::uint32_t queue);
    void write(Need need, const std::function<void(WriteTxn&)>& work) { write_store(env_, reserve_, need, work); }
    /// Wakes the queue's drainer if it waits.
    void wake(std::uint32_t queue, MarkFile& mark) const;

  private:
    [[nodiscard]] LmdbSettings lmdb_settings() const;
    /// Bytes that the messages will take. Throws as check_message.
    static std::uint64_t checked_growth(std::span<const OutgoingMessage> messages);
    /// On the disk, before a transaction that lets the store grow.
    void make_room(std::uint64_t growth);
    static void check_quota(WriteTxn& write, std::uint64_t growth);
    void change_group(std::optional<gid_t> group);
    /// Says within the transaction which of the messages are put.
    using Choice = std::function<std::span<const OutgoingMessage>(WriteTxn&)>;
    void put_chosen(const std::string& queue, std::span<const OutgoingMessage> messages, const Choice& choose);
    /// A queue whose record and mark are of one moment.
    struct Snapshot {
        QueueRecord record;
        UsedRange used;
        std::uint64_t in_hand = 0; ///< 0 unless the mark is of the record's generation
    };
    Snapshot snapshot(Reader& reader, const std::string& queue);
    enum class Shown { kOnQueue, kKept };
    struct Copied {
        std::uint64_t sequence = 0;
        bool in_hand = false;
        std::uint32_t given_back = 0;
        std::optional<std::string> held; ///< reason
        std::optional<KeptRange> range;  ///< that holds it
        std::string record;
    };
    /// Messages from `from` on as they stand at one moment; moves `from` behind them. Empty at the queue's end only.
    std::set<std::uint64_t> in_hand(const Snapshot& now);
    static std::uint64_t next_shown(RangeWalk& ranges, Shown shown, std::uint64_t place);
    std::vector<Copied> copy_block(Reader& reader, const std::string& queue, Shown shown, std::uint64_t& from,
                                   std::size_t limit);
    void show(const std::string& queue, Shown shown, std::uint64_t from,
              const std::function<bool(const StoredMessage&)>& visit);
    QueueInfo info_of(MDB_txn* txn, const std::string& name, const Snapshot& now);
    int remove_files(std::uint32_t id);
    void erase_step(const std::string& name, std::uint32_t id, bool purge, bool& done);

    StoreFiles files_;
    mutable Environment env_;
    StoreIdentity identity_;
    ReserveFile reserve_;
    DrainLocks drain_locks_;
    TakenOnce taken_;
    std::mutex marks_mutex_;
    std::map<std::uint32_t, std::shared_ptr<MarkFile>> marks_;
    std::map<std::uint32_t, std::shared_ptr<ClaimsFile>> claims_;
};

} // namespace kvr
