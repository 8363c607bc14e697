// SPDX-License-Identifier: MIT
// The field on which the battery fights: a sender with one channel and a receiver, each with a store of its own, real
// processes between them, and a ledger of everything that was put.
//
// Each test makes a field, lets the attack happen, brings the channel to rest and asks for the verdict. Every wait ends
// with an event or at a deadline.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "host/children.h"
#include "judge.h"
#include "store.h"
#include "support/peer.h"
#include "support/tls_material.h"

namespace kvr::test {

/// Names on the field.
inline constexpr char kSender[] = "SENDER";
inline constexpr char kReceiver[] = "RECEIVER";
inline constexpr char kChannel[] = "BATTERY";
inline constexpr char kXmitQueue[] = "XMIT";
inline constexpr char kTarget[] = "TARGET";
inline constexpr char kDeadQueue[] = "DEAD.LETTER.QUEUE";
inline constexpr char kTag[] = "BATTERY";

using Environment = std::vector<std::pair<std::string, std::string>>;

class Field {
  public:
    /// Fast retries (1 second), no heartbeats; `carrier` other than plain sets the channel and the listener to TLS. The
    /// field's home is a new folder in `where`.
    explicit Field(Carrier carrier = Carrier::kPlain,
                   const std::filesystem::path& where = std::filesystem::temp_directory_path());
    ~Field();
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;

    [[nodiscard]] const std::filesystem::path& home() const { return home_; }
    [[nodiscard]] Store& sender() { return *sender_; }
    [[nodiscard]] Store& receiver() { return *receiver_; }
    [[nodiscard]] int port() const { return port_; }

    /// Attributes of the channel ("HBINT", "1"), and of the sender's queue manager.
    void set_channel(const Attributes& attributes);
    /// The channel's receiver: a port of this machine.
    void point_at(int port) { set_channel({{"CONNAME", "127.0.0.1(" + std::to_string(port) + ")"}}); }
    void set_qmgr(const Attributes& attributes);

    /// Puts the next numbered messages on the transmission queue and writes them down once the put succeeded.
    void put(MessageKind kind, std::uint64_t count, std::size_t least, std::size_t greatest);
    /// More messages of the greatest size than all the buffers between two ends can hold.
    void put_too_much();
    /// One of each: plain, with two attachments, file message.
    void put_one_of_each();

    /// Starts a listener and waits until it takes connections. The first one picks the port, later ones take the same.
    [[nodiscard]] Child listen(const std::vector<std::string>& options = {});
    /// Starts the worker with its log at level 5.
    [[nodiscard]] Child run_channel(const Environment& environment = {}, const std::vector<std::string>& options = {});
    /// From now on programs are started by a shell that first does this; it begins a command line which the program
    /// ends ("ulimit -n 12; exec"). Empty: no shell.
    void set_prelude(std::string prelude) { prelude_ = std::move(prelude); }
    /// Any other run of the program, its output in a file of the home.
    [[nodiscard]] Child start(const std::vector<std::string>& arguments, const Environment& environment = {});
    /// As start, of another program.
    [[nodiscard]] Child start_program(const std::string& program, const std::vector<std::string>& arguments,
                                      const Environment& environment = {});

    [[nodiscard]] std::string status(const std::string& attribute = "STATUS");
    [[nodiscard]] std::string log() const;
    /// How often a text stands in the worker's log.
    [[nodiscard]] std::size_t logged(const std::string& text) const;
    /// How often an event ("connect", "end") stands in the listener's journal.
    [[nodiscard]] std::size_t journalled(const std::string& event) const;
    [[nodiscard]] std::uint64_t depth(const std::string& queue = kXmitQueue);
    [[nodiscard]] std::uint64_t arrived();

    // Waits; each fails the test when its deadline passes.
    void await_status(const std::string& wanted);
    void await_log(const std::string& text, std::size_t times = 1);
    void await_arrived(std::uint64_t count);
    void await_drained(); ///< the transmission queue is empty
    void await_all();     ///< that, and everything put has arrived

    /// Judges everything put so far. `cuts`: connections broken under load; `repeats`: second copies allowed.
    [[nodiscard]] Verdict judge(std::uint64_t cuts = 0, std::uint64_t repeats = 0) const;
    /// As judge, and expects: no fault, nothing lost, nothing repeated, everything at its target.
    void expect_all_delivered(std::uint64_t repeats = 0) const;
    /// Waits until everything has arrived, stops the worker and expects the same.
    void finish(Child& worker, std::uint64_t repeats = 0);
    /// What judge judges, for a test that wants it judged otherwise.
    [[nodiscard]] Run run() const;
    [[nodiscard]] const std::vector<NumberedMessage>& ledger() const { return ledger_; }

  private:
    std::filesystem::path home_;
    Carrier carrier_;
    std::string prelude_;
    int port_ = 0;
    std::shared_ptr<Store> sender_;
    std::shared_ptr<Store> receiver_;
    std::vector<NumberedMessage> ledger_;
};

inline const auto kPlainAndTls = ::testing::Values(Carrier::kPlain, Carrier::kTls13);
inline std::string name_of_carrier(const ::testing::TestParamInfo<Carrier>& tested) {
    return carrier_name(tested.param);
}

/// The verdict, each fault a failure of the test.
Verdict verdict_on(const Run& run);

/// Send plus receive buffer at their greatest, by the system's settings: what one cut may cost.
std::uint64_t cut_window();

/// Asks until it holds; fails the test with `what` when the deadline passes.
void await(const std::string& what, const std::function<bool()>& condition);

/// How often a case repeats its attack: `quick`, or what KVR_BATTERY_ROUNDS says.
std::size_t rounds(std::size_t quick);

/// Makes a folder of a name of its own.
std::filesystem::path new_folder(const std::filesystem::path& where = std::filesystem::temp_directory_path());
/// All of a file; of a missing one nothing.
std::string contents(const std::filesystem::path& file);

/// True once the process has ended (it stays to be reaped).
bool has_ended(const Child& child);
/// Asks the listener once to end, which it does when everything that came is on its queue; its status.
int end_listener(Child& listener);
/// Processes whose command line holds this text (zombies have none).
std::vector<pid_t> processes_with(const std::string& text);
/// Processes whose parent is `pid` (zombies included).
std::vector<pid_t> children_of(pid_t pid);
/// Open descriptors of a process.
std::size_t descriptors_of(pid_t pid);
/// A figure of /proc/PID/status in KiB ("VmRSS").
std::uint64_t memory_of(pid_t pid, const std::string& figure);

} // namespace kvr::test
