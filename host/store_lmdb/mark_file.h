// SPDX-License-Identifier: MIT
// The mark of a queue: a page of memory shared by all processes through a file, which survives its writer.
//
// Messages that were used are deleted in groups, because a durable delete costs a disk flush. The mark says how far the
// group has been used, at the price of one store per message. What a crash leaves behind, step by step:
//   1. message handed out, `through` not yet moved       → it is delivered again: the one repeat that can happen
//   2. `through` moved, group not deleted                → the next drainer deletes the group first; others see it as
//                                                          used
//   3. group deleted (generation g+1), mark still of g   → the mark is of another generation and says nothing, rightly:
//                                                          what it spoke of is gone
//   4. mark being set up for g+1                         → `through` is cleared before the generation moves: nothing is
//                                                          used
// After a reboot the mark is ignored (its boot id differs): the page may be older than the last group. The group then
// is delivered again, and after a power loss the one before it too, whose delete may not have reached the disk: at most
// two groups (UsedGroup::kMessages, kBytes; used_group.h says when a group can be larger).
//
// A queue that was deleted and defined again has another id, another store another store id: no mark passes for theirs.
// A store that is put back from a backup gives ids again, so the definition of a queue removes what is left of an
// earlier one. For the queues of the backup itself nothing here can tell a mark that was made since: the marks go back
// with the store, as parts of one folder. Within one group the sequences rise and no held message lies between them, so
// that a range says it all.
#pragma once

#include <cstdint>
#include <filesystem>

#include "kavutil/export.h"

namespace kvr {

/// Messages first..through of the queue's current group are used. Both 0: none.
struct UsedRange {
    std::uint64_t first = 0;
    std::uint64_t through = 0;
    [[nodiscard]] bool contains(std::uint64_t sequence) const { return sequence >= first && sequence <= through; }
    [[nodiscard]] bool empty() const { return through == 0; }
};

class KVR_EXPORT MarkFile {
  public:
    /// Maps the mark of a queue; makes the file when it is missing.
    MarkFile(const std::filesystem::path& path, std::uint64_t store_id, std::uint32_t queue_id);
    ~MarkFile();
    MarkFile(const MarkFile&) = delete;
    MarkFile& operator=(const MarkFile&) = delete;

    /// What is used of a queue whose record says `generation`.
    [[nodiscard]] UsedRange used(std::uint64_t generation) const;
    /// Generation of the mark, 0 when it says nothing.
    [[nodiscard]] std::uint64_t generation() const;
    /// Whether what is used of the group is to be kept.
    [[nodiscard]] bool is_kept() const;
    /// When its last message was used, in seconds since the epoch; of one that is kept.
    [[nodiscard]] std::int64_t used_at() const;
    /// Sequence of the message that the drainer holds in hand, 0 for none. True only while a drainer lives.
    [[nodiscard]] std::uint64_t in_hand() const;

    // For the queue's drainer only.
    /// Takes the mark over, or begins the next group: nothing of this generation is used yet.
    /// @param kept  what is used is to be kept, whoever finds it
    void begin_group(std::uint64_t generation, bool kept);
    void set_used(UsedRange range);
    void set_used_at(std::int64_t time);
    void set_in_hand(std::uint64_t sequence);

    // Waiting word.
    void set_waiting(bool waiting);
    /// True for one caller once the drainer waits.
    bool claim_wake_up();

  private:
    struct Page;
    [[nodiscard]] bool is_ours() const;

    Page* page_ = nullptr;
    std::uint64_t store_id_;
    std::uint32_t queue_id_;
};

} // namespace kvr
