// SPDX-License-Identifier: MIT
// The store of one queue manager: objects, queues and messages, read and written by any number of processes. This is
// the contract; which engine keeps them is said by the queue manager's folder (engine.h), and to its users it is all
// the same.
//
// An operation happened durably when it returned, and did not happen when it threw kvr::Error; it is one transaction,
// seen as a whole or not at all. Three are not, for the sake of their size or speed:
//   - a queue is purged in steps: a crash or an error on the way leaves it with what was not deleted yet;
//   - used messages are deleted in groups: after a crash or an error a message that was used can still be there, where
//     the engine knows that it is used; a power loss can bring up to two groups of them back;
//   - a put or a change whose error is kUnknown: what keeps it failed in the middle, and it may have happened.
// One Store is open once per process and queue manager (Store::open returns the same one), and belongs to the process
// that opened it: a forked child opens its own.
//
// What waits for another process says so after two seconds and again whenever the wait has doubled, each minute at
// least; it waits on, but gives up where limit_waits bounds it, and soon after a stop was asked for (stop_point.h, or a
// SIGTERM or SIGINT that is held back): kBusy with that process.
//
// A store that was removed, moved or replaced by hand while it is open is written to no more (kDamaged), and who waits
// for a message in it is told so.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kavro_api.h"
#include "kavutil/error.h"
#include "kavutil/export.h"
#include "store/keep.h"
#include "store/owner.h"
#include "store/schema.h"
#include "store/taker.h"

namespace kvr {

/// Greatest message: data with its transmission header.
constexpr std::size_t kMaxMessage = 2098376;
/// Greatest name of a queue, channel or queue manager. Queue names travel in fields of 32 bytes.
constexpr std::size_t kMaxQueueName = 32;
constexpr std::size_t kMaxChannelName = 63;

/// A message to be put. The views are read during the call only.
struct OutgoingMessage {
    const T_KAVRO_MD* descriptor;             ///< pOptData is not looked at; `attachments` set KVR_MSGFLAG_ACCESSORIES
    std::span<const std::string> attachments; ///< full paths, at most KVR_ACC_MAX of at most 511 bytes
    std::span<const char> data;
};

/// A message as it lies on a queue. The views are valid during the visitor's call only.
struct StoredMessage {
    std::uint64_t sequence;
    T_KAVRO_MD descriptor; ///< pOptData null
    std::vector<std::string> attachments;
    std::span<const char> data;
    bool held; ///< kept back after a dead-letter put that failed
    std::string held_reason;
    bool in_hand;                  ///< reserved by the process that drains the queue, or by a taker
    std::uint32_t given_back;      ///< times that takers had it and it came back
    bool repeat;                   ///< was used before, and is handed out again
    std::optional<KeptFacts> kept; ///< of browse_kept alone
};

struct QueueInfo {
    std::string name;
    std::string description;
    std::uint64_t depth; ///< messages on the queue: reserved and held ones included, used ones not
    std::uint64_t bytes; ///< their data
    std::uint64_t held;
    std::optional<Owner> drained_by; ///< or one of its takers
    std::uint64_t kept;              ///< used ones that stay for a while, not counted in the depth (keep.h)
    std::uint64_t kept_bytes;        ///< theirs on the line
    Loss suspected;                  ///< of the kept ones: those that can be gone with a line
    std::uint64_t repeats;           ///< of the depth: those that are handed out again
};

/// Limits and trade-offs of a queue manager by name, as texts. Every engine takes "quota", the bytes of messages and
/// objects beyond which puts fail (deletes go on), and "sync": "off" is faster and lets a power loss take the last
/// seconds. The embedded one takes "group", too: the group, by name or number, whose members may use the queue manager
/// beside its owner (access.h), or "none". What else there is, and what is right, the engine says.
using Settings = std::map<std::string, std::string>;

/// Room that a queue manager takes.
struct Usage {
    std::uint64_t bytes; ///< messages and objects, as the quota counts them
    std::uint64_t quota;
    std::uint64_t file; ///< what the store takes on this machine's disk, room that it will use again included
};

/// Takes a line about what holds a store up, or what the store mended by itself.
using Notice = void (*)(const std::string& line);
/// Sets the process's one; null, as at first: nobody is told.
KVR_EXPORT void set_notice(Notice notice);
/// Called each second in which a get of this process waits for a message, and when a signal ends the wait, with the
/// caller's signals held; null: nothing.
KVR_EXPORT void set_idle_look(void (*look)());
/// Longest single wait of this process for another one, waits that are under way included; without limit at first. When
/// it is over the call throws kBusy and nothing has happened. A process whose loop must go on sets it short and takes
/// kBusy as "not now": it does the call again later.
KVR_EXPORT void limit_waits(std::chrono::milliseconds limit);

class Getter;

class KVR_EXPORT Store {
  public:
    /// Makes a new queue manager's folder (0700) with an empty store, of the embedded engine unless another one is
    /// named. Settings that are not given have the engine's default. Throws kExists, kInvalid, kUnknownAttr.
    static void create(const std::filesystem::path& dir, const std::string& qmgr, const Settings& settings,
                       const std::string& engine = {});
    /// Whether the folder is a queue manager's, as far as this user may look.
    static bool exists(const std::filesystem::path& dir);
    /// Opens a queue manager's store. Throws kNotFound, kVersion (also for an engine that is not there), kPermission
    /// (not ours, or writable by others), kDamaged, kIo.
    static std::shared_ptr<Store> open(const std::filesystem::path& dir);
    Store() = default;
    virtual ~Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    [[nodiscard]] virtual const std::string& qmgr() const = 0;
    /// The queue manager's folder on this machine: its logs, locks and spool; where its messages lie is the engine's
    /// affair.
    [[nodiscard]] virtual const std::filesystem::path& dir() const = 0;
    /// Random, made with the store and kept with it: for digests that nobody outside can foresee. Never shown.
    [[nodiscard]] virtual std::uint64_t seed() const = 0;
    [[nodiscard]] virtual Settings settings() const = 0;
    /// Changes the settings that are given. Some take effect when a process opens the store the next time. The group is
    /// changed by the owner, while no other process has the store open and this one neither drains nor takes. Throws
    /// kUnknownAttr, kInvalid, kBusy, kPermission.
    virtual void change_settings(const Settings& changes) = 0;
    [[nodiscard]] virtual Usage usage() = 0;
    /// A process that is stopped in the middle of a write, so that all other writers wait for it.
    [[nodiscard]] virtual std::optional<Owner> frozen_writer() = 0;
    /// Deletes the queue manager's folder with all that is in it; this Store then must not be used any more. Throws
    /// kBusy with the process that has the store open, or when it holds messages and `purge` is false.
    virtual void destroy(bool purge) = 0;

    // Objects. Classes, attributes and their limits: schema.h.
    virtual void object_add(const std::string& cls, const std::string& name, const Attributes& attrs) = 0;
    [[nodiscard]] virtual Attributes object_get(const std::string& cls, const std::string& name) = 0;
    virtual void object_set(const std::string& cls, const std::string& name, const Attributes& attrs) = 0;
    virtual void object_delete(const std::string& cls, const std::string& name) = 0;
    [[nodiscard]] virtual std::vector<std::string> object_names(const std::string& cls) = 0;

    // Queues.
    virtual void queue_define(const std::string& name, const std::string& description) = 0;
    virtual void queue_set(const std::string& name, const std::string& description) = 0;
    /// Throws kBusy while a process drains it or when it holds messages and `purge` is false.
    virtual void queue_delete(const std::string& name, bool purge) = 0;
    [[nodiscard]] virtual QueueInfo queue_info(const std::string& name) = 0;
    [[nodiscard]] virtual std::vector<QueueInfo> queues() = 0;

    /// Puts all messages or none, and wakes a getter that waits. Throws kNotFound, kTooLarge, kFull, kIo.
    virtual void put(const std::string& queue, std::span<const OutgoingMessage> messages) = 0;
    void put(const std::string& queue, const OutgoingMessage& message) { put(queue, {&message, 1}); }
    /// As put, but leaves out each message whose identity is among the last `remember` that this queue manager took
    /// here, whatever the queue. Messages and what is remembered of them are one transaction, for all processes.
    /// Returns for each message whether it was put; the same call after an error that left open whether it happened
    /// returns that, too, for those that had been put then.
    virtual std::vector<bool> put_once(const std::string& queue, std::span<const OutgoingMessage> messages,
                                       std::span<const MessageIdentity> identities, std::uint64_t remember) = 0;

    /// Shows messages oldest first, from `from` on, until `visit` returns false. Used messages are not shown.
    virtual void browse(const std::string& queue, std::uint64_t from,
                        const std::function<bool(const StoredMessage&)>& visit) = 0;
    /// The same for used messages that are kept.
    virtual void browse_kept(const std::string& queue, std::uint64_t from,
                             const std::function<bool(const StoredMessage&)>& visit) = 0;
    /// Puts held messages back to where they stood. Returns how many.
    virtual std::uint64_t release_held(const std::string& queue) = 0;
    /// Puts kept messages of these places back to where they stood: they are handed out again, as repeats. What a
    /// drainer that ended had used last is kept once the next one has taken the queue over. Returns how many.
    virtual std::uint64_t replay(const std::string& queue, std::span<const Places> places) = 0;

    /// Takes the queue over for draining; it belongs to the getter until that is destroyed or its process ends.
    /// Throws kBusy with its owner.
    virtual std::unique_ptr<Getter> drain(const std::string& queue, const DrainOptions& options) = 0;
    std::unique_ptr<Getter> drain(const std::string& queue) { return drain(queue, {}); }

    /// Becomes one of the takers of the queue (taker.h). Throws kNotFound, and kBusy with the process that drains it,
    /// or where it has kMaxTakers.
    virtual std::unique_ptr<Taker> take_from(const std::string& queue) = 0;
    /// Does a unit of work: all puts, in this order, and the end of all messages taken, or nothing. What was taken
    /// stays reserved when this throws. Throws as put; kUnknown when it is not known whether it happened: what was
    /// taken comes again unless it did, after it was given back.
    virtual void commit(std::span<const UnitPut> puts, std::span<const UnitTake> takes) = 0;
};

/// The one drainer of a queue.
///
/// next() reserves a message: nobody else gets it, and it is used up by the following next(), by commit() or by a
/// successful put_instead(); destroyed without any of these, or killed, the reservation is given back. Used messages
/// are deleted in groups; how far the queue is used survives the process, so that after kill -9 at most the message in
/// hand is delivered again.
class KVR_EXPORT Getter {
  public:
    virtual ~Getter() = default;

    /// Commits the message in hand, then reserves the next one and copies it out.
    /// @param descriptor   (in/out) filled; its pOptData, when not null, must point at a T_KAVRO_ACCESSORIES_MD, which
    ///                     gets the files of a message that has KVR_MSGFLAG_ACCESSORIES, be they none
    /// @param buffer       room for the data; a larger message throws kTooLarge and stays
    /// @param longest      wait for a put or a signal on an empty queue; 0: none; nothing: without end
    /// @return bytes of data; -1 when none came in time or a signal ended the wait
    virtual std::int64_t next(T_KAVRO_MD& descriptor, std::span<char> buffer,
                              std::optional<std::chrono::milliseconds> longest) = 0;
    /// @param wait  true: without end
    std::int64_t next(T_KAVRO_MD& descriptor, std::span<char> buffer, bool wait) {
        return next(descriptor, buffer, wait ? std::nullopt : std::optional(std::chrono::milliseconds(0)));
    }
    /// Uses up the message in hand without taking another one; deletes what was used.
    virtual void commit() = 0;
    /// Gives the message in hand back.
    virtual void rollback() = 0;
    /// Gives the message in hand back and goes on behind it: it comes to the queue's next drainer, not to this one.
    virtual void skip() = 0;
    /// Puts a message on another queue and uses up the message in hand, both or neither. When it fails the message in
    /// hand is held and the error is thrown.
    virtual void put_instead(const std::string& queue, const OutgoingMessage& message) = 0;
    /// Puts the oldest messages on another queue, in their order: all of the group in one transaction, or none. The
    /// group ends at `count` messages or 4 MiB, and before a message that `change` or the other queue refuses; the
    /// error is thrown when that is the group's first. Held messages stay where they are. No message may be in hand.
    /// @param change  gives a message's data on the other queue, from its data on this one
    /// @return messages moved; 0: none is left
    virtual std::uint64_t move_group(const std::string& queue, std::uint64_t count,
                                     const std::function<std::string(std::string_view)>& change) = 0;
    /// Keeps the message in hand on its queue, out of the getters' way, until release_held. The reason is `what`
    /// followed by `why`. Where this throws, be it for want of memory, the next next() or commit() tries again before
    /// all else.
    virtual void hold(std::string_view what, std::string_view why) = 0;
    void hold(std::string_view what) { hold(what, {}); }
    [[nodiscard]] virtual bool in_hand() const = 0;
    /// Whether the message in hand was used before, and is handed out again.
    [[nodiscard]] virtual bool is_repeat() const = 0;

    // For a drainer that keeps what it used, and uses it over one line after the other.
    /// What the last drainer of the queue used on its last line, when it ended without line_ended(); suspected, or
    /// handed out again, already.
    [[nodiscard]] virtual const Loss& inherited_loss() const = 0;
    /// The line broke over which the messages since the last call, or since the start, were used; the one in hand is
    /// not among them. Returns what can be gone; with DrainOptions::repeat it comes again at the following next().
    virtual Loss line_lost() = 0;
    /// The line ended in order: nothing of what was used is suspected later. Deletes or keeps what was used.
    virtual void line_ended() = 0;
};

} // namespace kvr
