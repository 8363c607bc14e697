// SPDX-License-Identifier: MIT
// The field on which the battery fights: a sender with one channel and a receiver, each with a store on a disk of its
// own, and real processes between them. Every wait ends with an event, or throws at its deadline.
#pragma once

#include "host/children.h"
#include "store/store.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

inline constexpr char kSender[] = "SENDER";
inline constexpr char kReceiver[] = "RECEIVER";
inline constexpr char kChannel[] = "BATTERY";
inline constexpr char kXmitQueue[] = "XMIT";
inline constexpr char kTarget[] = "TARGET";
inline constexpr char kDeadQueue[] = "DEAD.LETTER.QUEUE";

using Words = std::vector<std::string>;

/// Asks until it holds; throws, naming `what`, when the deadline passes.
void await(const std::string& what, const std::function<bool()>& condition);

/// A folder that is a file system of its own where that is wanted and the system lets us mount one.
class Disk {
  public:
    Disk(std::filesystem::path folder, bool own);
    ~Disk();
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    [[nodiscard]] bool mounted() const { return mounted_; }
    /// Free are so many bytes from now on.
    void leave(std::uint64_t bytes) const;
    void give_back() const { leave(1U << 30U); }

  private:
    std::filesystem::path folder_;
    bool mounted_;
};

class Field {
  public:
    /// The channel retries for long and sends no heartbeats; with `carrier` other than plain it and the listener speak
    /// TLS. `exact`: the disks are those of the home, and nothing is preloaded into the programs.
    explicit Field(Carrier carrier = Carrier::kPlain, bool exact = true,
                   const std::filesystem::path& where = std::filesystem::temp_directory_path());
    ~Field();
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;

    [[nodiscard]] const std::filesystem::path& home() const { return home_.path(); }
    [[nodiscard]] std::filesystem::path spool() const { return qmgr(kReceiver) / "spool"; }
    [[nodiscard]] std::filesystem::path qmgr(const char* name) const;
    [[nodiscard]] Store& sender() { return *sender_; }
    [[nodiscard]] Store& receiver() { return *receiver_; }
    [[nodiscard]] const Disk& senders_disk() const { return senders_disk_; }
    [[nodiscard]] const Disk& receivers_disk() const { return receivers_disk_; }
    [[nodiscard]] int port() const { return port_; }

    void set_channel(const Attributes& attributes) { sender_->object_set("CHL", kChannel, attributes); }
    void set_qmgr(const Attributes& attributes) { sender_->object_set("QMGR", "QMGR", attributes); }
    /// The channel's receiver: a port of this machine.
    void point_at(int port) { set_channel({{"CONNAME", "127.0.0.1(" + std::to_string(port) + ")"}}); }
    /// The certificate of listeners from now on.
    void set_identity(const TlsIdentity& identity) { identity_ = identity; }

    /// Programs are started by a shell that first does this; it begins a command line that the program ends
    /// ("ulimit -n 12; exec"). Empty: no shell.
    void set_prelude(std::string prelude) { prelude_ = std::move(prelude); }
    /// A listener that takes connections, on the field's port.
    [[nodiscard]] Child listen(const Words& options = {});
    /// A worker with its log at level 5.
    [[nodiscard]] Child run_channel();
    /// The program on one of the queue managers, its output at the end of the file "out". `who`: whom trouble() names.
    [[nodiscard]] Child start(const char* qmgr, const Words& words, const std::string& who = "other");
    [[nodiscard]] Child start(Words words, const std::string& who = "other");
    /// From now on calls of that program fail as disk_fails.cpp reads it; empty: none.
    void trouble(const std::string& who, const std::string& what) const;

    /// Of the channel; empty before its first start.
    [[nodiscard]] std::string status(const std::string& attribute = "STATUS");
    /// A file of the home from a place on: "log" of the worker, "journal" of the listener, "out" of all programs.
    [[nodiscard]] std::string text(const char* file, std::size_t from = 0) const {
        return contents(home() / file, from);
    }
    /// How often something stands there.
    [[nodiscard]] std::size_t count(const char* file, const std::string& wanted, std::size_t from = 0) const {
        return occurrences(text(file, from), wanted);
    }
    [[nodiscard]] std::size_t journalled(const std::string& event) const {
        return count("journal", "\"event\":\"" + event + '"');
    }
    [[nodiscard]] std::uint64_t depth(const char* queue = kXmitQueue) { return sender_->queue_info(queue).depth; }
    [[nodiscard]] std::uint64_t arrived() { return receiver_->queue_info(kTarget).depth; }

  private:
    static int reserve(int socket);
    [[nodiscard]] std::filesystem::path trouble_of(const std::string& who) const { return home() / ("trouble." + who); }

    TemporaryFolder home_;
    Carrier carrier_;
    bool exact_;
    TlsIdentity identity_ = tls_material().server;
    Disk senders_disk_;
    Disk receivers_disk_;
    std::string prelude_;
    UniqueFd reserved_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)}; ///< has the port while no listener does
    int port_ = reserve(reserved_.get());
    std::shared_ptr<Store> sender_;
    std::shared_ptr<Store> receiver_;
};

/// Send plus receive buffer at their greatest, by the system's settings: what one cut may cost.
std::uint64_t cut_window();

bool has_ended(const Child& child);
/// Processes whose command line holds this text (zombies have none).
std::vector<pid_t> processes_with(const std::string& text);
std::size_t descriptors_of(pid_t pid);
/// A figure of /proc/PID/status, memory in KiB ("RssAnon"); 0 when it has none.
std::uint64_t memory_of(pid_t pid, const std::string& figure);

} // namespace kvr::test
