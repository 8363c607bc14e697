// SPDX-License-Identifier: MIT
// One history of a channel: numbered messages under load while faults are made, and the judge over all that came of it.
//
// A rest judges what was put since the rest before: each message has arrived whole and in order, is a dead letter, or
// is one of a run that a cut may have cost. It also judges both processes: descriptors, children, memory, status.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "field.h"
#include "proof/proof.h"
#include "relay.h"

namespace kvr::test {

/// What a fault may cost at most, and what was spent.
struct Cost {
    std::size_t cuts = 0; ///< runs of lost messages, none longer than what two ends can buffer
    std::size_t repeats = 0;
    std::size_t dead = 0;     ///< dead letters
    bool leftovers = false;   ///< files in the spool without a message
    std::size_t turns = 0;    ///< places where a message is older than the one before
    std::size_t messages = 0; ///< spent only: lost ones
    std::uint64_t bytes = 0;  ///< spent only: of the longest run

    void operator+=(const Cost& more) {
        cuts += more.cuts, repeats += more.repeats, dead += more.dead;
        leftovers = leftovers || more.leftovers, turns += more.turns;
    }
};

struct Fault;

/// How both ends are set, and what is between them.
struct Terms {
    Attributes channel;
    Words listener;
    Relay* relay = nullptr;
};

class History {
  public:
    History(std::uint64_t seed, Carrier carrier, const Terms& terms = {});

    Field field;
    std::optional<Child> listener;
    std::optional<Child> worker;

    /// A number below this one, by the seed.
    std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
    template <class List>
    const auto& one_of(const List& list) {
        return std::data(list)[below(std::size(list))];
    }
    void pause_up_to(std::uint64_t microseconds);

    /// Puts messages of any kind, or of one.
    void put(std::size_t count, SizeRange size = {0, 20'000}, std::optional<ProofKind> kind = {});
    /// More messages of the greatest size than the buffers between two ends can hold, so many times.
    void put_too_much(std::size_t times = 1);
    /// Messages put so far.
    [[nodiscard]] std::uint32_t last() const { return static_cast<std::uint32_t>(plans_.size()); }
    /// Bytes that a message takes on the wire; of a file message without the path of its file.
    [[nodiscard]] std::uint64_t wire_size_of(std::uint32_t number) const {
        return wire_size(plans_[number - 1], number);
    }
    /// The files of the last message.
    [[nodiscard]] const std::vector<std::string>& last_files() const { return last_files_; }

    void listen(const Words& options = {});
    /// Ends the listener at rest, when that costs nothing, and starts it with other options, the channel with other
    /// settings: it says anew what it has said before.
    void relisten(const Words& options = {}, const Attributes& channel = {});
    /// Its status says whether it told of losses; what is lost is judged by the messages.
    void end_listener();
    /// Starts the worker; texts count from here on.
    void start();
    /// Starts the worker and waits until its channel runs.
    void run();
    /// Behind a relay: starts the worker again that has ended by itself, as a service does; a peer that resets the line
    /// before the bind frame ends it.
    void revive();
    /// Stops the worker by one SIGTERM, and looks what it leaves.
    void stop();
    void stop_at_rest() { quiet(), stop(); }
    /// Kills one of them, which may have ended by itself with status 0.
    static void kill(std::optional<Child>& child);
    [[nodiscard]] std::vector<pid_t> watchers() const;

    /// Makes a fault, and gives back what it took: settings, room, disks, programs with their ordinary options.
    void meet(const Fault& fault);
    /// Texts count from here on.
    void mark();
    /// Waits for a text in a file of the field, written since the mark.
    void await_text(const char* file, const std::string& text, std::size_t times = 1);
    [[nodiscard]] std::size_t since(const char* file, const std::string& text) const;

    /// Stops it by SIGSTOP, but not in the middle of a write to the sender's store, for whose end all others would
    /// wait.
    void freeze(const Child& child) const;

    /// Waits until the queue is empty.
    void drain();
    /// Waits until the queue is empty and its last message has arrived.
    void settle();
    void quiet() { settle(), mark(); }
    /// Settles, and judges. Returns what was spent since the last rest.
    Cost rest(const Cost& allowed);
    /// The end of the history: everything stops and leaves nothing.
    void finish();

  private:
    void collect();
    Cost judge(const Cost& allowed);
    void judge_processes();

    std::uint64_t seed_;
    std::mt19937_64 random_;
    std::vector<ProofPlan> plans_; ///< by number - 1
    std::vector<std::string> last_files_;
    std::map<std::string, std::size_t> marks_;
    ProofCheck arrived_;
    ProofCheck dead_;
    std::map<std::string, std::uint64_t> next_;  ///< to be read, by queue
    std::map<std::string, std::int32_t> newest_; ///< the number that came last, by queue
    std::size_t turns_ = 0;
    std::set<std::string> files_read_;
    std::uint32_t judged_ = 0;
    Cost before_; ///< sums at the last rest
    bool leftovers_ = false;
    bool listens_oddly_ = false;
    const Relay* relay_;
    std::size_t listener_from_ = 0; ///< where its words begin
    std::size_t descriptors_ = 0;   ///< of worker and listener at the first rest
    std::uint64_t memory_ = 0;      ///< of the worker at the first rest
};

/// A way in which something can go wrong.
struct Fault {
    enum class Carriers { kAny, kPlain, kTls };
    const char* name;
    /// Makes it while the channel runs, and sees it happen.
    void (*make)(History&);
    Cost cost = {};
    Carriers carriers = Carriers::kAny;
};

/// Has the writer's turn of a store, and sits on it, as a process that was stopped in the middle of a write.
Child frozen_writer(const std::filesystem::path& qmgr);
/// Free are so many bytes from now on.
void leave_quota(Store& store, std::uint64_t bytes);

std::vector<Fault> faults_of_lines();
std::vector<Fault> faults_of_disks();
std::vector<Fault> faults_of_processes();

} // namespace kvr::test
