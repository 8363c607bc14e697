// SPDX-License-Identifier: MIT
// What happens to the processes around a channel: killed, frozen, in each other's way, short of descriptors, with files
// that change under their hands.
#include <fstream>
#include <functional>
#include <set>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "history.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using enum Fault::Carriers;

void await_watchers_end(const History& h) {
    await("the end of the watcher", [&] { return processes_with((h.field.home() / "log").native()).empty(); });
}

/// At a line of the log that marks a step of a message's road, or anywhere.
void kill_worker(History& h) {
    static const char* const kSteps[] = {
        "start recv msg", "rcv len[",           "NETSTAT[",         "start write chl hdr", "start write chl msg",
        "main msg len[",  "start write attach", "begin send file[", "send data[",          "real size["};
    h.put(80);
    if (h.below(2) == 0) {
        h.await_text("log", h.one_of(kSteps), 1 + h.below(20));
    } else {
        h.pause_up_to(20'000);
    }
    h.kill(h.worker);
    await_watchers_end(h);
    h.run();
    EXPECT_EQ(h.since("log", "is stale: that process does not run it; taken over"), 1U);
}

void kill_starting_worker(History& h) {
    h.put(20);
    h.stop();
    for (int i = 0; i < 4; ++i) {
        h.worker.emplace(h.field.run_channel());
        h.pause_up_to(60'000);
        h.kill(h.worker);
        await_watchers_end(h);
    }
    h.run();
}

/// What the old line still carries comes before all of the new one.
void kill_worker_behind_frozen_listener(History& h) {
    h.quiet();
    ::kill(h.listener->pid(), SIGSTOP);
    h.put(120, {10'000, 10'000}, ProofKind::kData);
    h.await_text("log", "real size[", 110);
    h.kill(h.worker);
    h.worker.emplace(h.field.run_channel());
    h.put(30, {1'000, 1'000}, ProofKind::kData);
    await("a drained queue", [&] { return h.field.depth() == 0 || h.field.carrier() != Carrier::kPlain; });
    ::kill(h.listener->pid(), SIGCONT);
}

void kill_listener(History& h) {
    const std::uint64_t before = h.field.arrived();
    h.put(200);
    await("some messages", [&] { return h.field.arrived() > before; });
    h.pause_up_to(30'000);
    h.kill(h.listener);
    h.listen();
}

void stop_listener(History& h) {
    h.put(200);
    h.pause_up_to(30'000);
    h.end_listener();
    h.listen();
}

void freeze(History& h, const Child& who) {
    h.put(50);
    ::kill(who.pid(), SIGSTOP);
    h.put(100);
    h.pause_up_to(200'000);
    ::kill(who.pid(), SIGCONT);
}

/// Of a killed putter's run all is there up to some group's end; what two getters, one of them killed, write has every
/// message, and at most the one in hand twice.
void kill_putter_and_getter(History& h) {
    constexpr std::uint64_t kCount = 3'000;
    constexpr std::uint64_t kGroup = 256;
    const char queue[] = "OTHER";
    h.field.sender().queue_define(queue, "");
    std::optional<Child> putter(
        h.field.start(kSender, {"put", queue, "--count", std::to_string(kCount), "--size", "100"}));
    h.pause_up_to(80'000);
    h.kill(putter);
    const std::uint64_t there = h.field.depth(queue);
    const std::size_t from = h.field.text("out").size();
    EXPECT_TRUE(there == kCount || there % kGroup == 0) << there;
    std::optional<Child> getter(h.field.start(kSender, {"--json", "get", queue, "--all"}));
    h.pause_up_to(60'000);
    h.kill(getter);
    std::ofstream(h.field.home() / "out", std::ios::app) << '\n'; // ends a line that the kill cut
    EXPECT_EQ(h.field.start(kSender, {"--json", "get", queue, "--all"}).result(), 0);
    const std::string out = h.field.text("out", from);
    constexpr std::string_view kNumber = "\"seqno\":";
    std::multiset<int> numbers;
    for (std::size_t at = out.find(kNumber); at != std::string::npos; at = out.find(kNumber, at + 1)) {
        numbers.insert(std::stoi(out.substr(at + kNumber.size(), 8)));
    }
    EXPECT_LE(numbers.size(), there + 1);
    EXPECT_EQ(std::set<int>(numbers.begin(), numbers.end()).size(), there);
    h.field.sender().queue_delete(queue, false);
}

/// Has the writer's turn of a store, and sits on it, as a process that was stopped in the middle of a write.
Child frozen_writer(const fs::path& qmgr) {
    Child child = Child::fork_off([&] {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_len = 1;
        const int fd = ::open((qmgr / "store" / "write.lock").c_str(), O_RDWR | O_CLOEXEC);
        while (::fcntl(fd, F_SETLKW, &lock) != 0) {
        }
        return ::raise(SIGSTOP);
    });
    siginfo_t how{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &how, WSTOPPED | WNOWAIT), 0);
    return child;
}

/// The worker says what it waits for and can be stopped; other programs name the process.
void freeze_writer_at_sender(History& h) {
    h.quiet();
    ::kill(h.worker->pid(), SIGSTOP);
    h.put(5);
    const Child writer = frozen_writer(h.field.qmgr(kSender));
    ::kill(h.worker->pid(), SIGCONT);
    const std::string name = "process " + std::to_string(writer.pid());
    h.await_text("log", "waiting for " + name + ",");
    ::kill(h.worker->pid(), SIGTERM);
    EXPECT_EQ(h.worker->result(), 0);
    EXPECT_EQ(h.field.start(kSender, {"stop", kChannel}).result(), 1);
    EXPECT_EQ(h.field.start(kSender, {"status"}).result(), 0);
    EXPECT_EQ(h.since("out", name + " is stopped in the middle of a write"), 1U);
    ::kill(writer.pid(), SIGKILL);
    h.run();
}

void freeze_writer_at_receiver(History& h) {
    h.relisten();
    const Child writer = frozen_writer(h.field.qmgr(kReceiver));
    h.put(20);
    h.await_text("out", "gave up waiting for process " + std::to_string(writer.pid()) + ",");
}

void few_descriptors_at_start(History& h) {
    h.stop();
    h.put(5);
    h.field.set_prelude("ulimit -n " + std::to_string(4 + h.below(24)) + "; exec");
    h.worker.emplace(h.field.run_channel());
    await("the end of the worker or of the queue", [&] { return has_ended(*h.worker) || h.field.depth() == 0; });
    h.field.set_prelude("");
    if (!has_ended(*h.worker)) {
        h.stop();
    } else { // of the first few it is the system's loader that refuses, in words of its own
        EXPECT_NE(h.worker->result(), 0);
        EXPECT_GT(h.since("out", "Too many open files") + h.since("log", "Too many open files") +
                      h.since("out", "Error 24"),
                  0U);
    }
    h.run();
}

/// Takes a process's further descriptors away, and gives them back.
class NoDescriptors {
  public:
    explicit NoDescriptors(pid_t pid) : pid_(pid) {
        (void)::prlimit(pid_, RLIMIT_NOFILE, nullptr, &before_);
        const rlimit few{3, before_.rlim_max};
        (void)::prlimit(pid_, RLIMIT_NOFILE, &few, nullptr);
    }
    ~NoDescriptors() { (void)::prlimit(pid_, RLIMIT_NOFILE, &before_, nullptr); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    pid_t pid_;
    rlimit before_{};
};

void no_descriptors_for_a_line(History& h) {
    h.quiet();
    const NoDescriptors none(h.worker->pid());
    h.end_listener();
    h.listen();
    h.await_text("log", "error[24:Too many open files]");
    h.put(5);
    EXPECT_EQ(h.field.depth(), 5U);
}

void no_descriptors_for_files(History& h) {
    h.relisten();
    const NoDescriptors none(h.listener->pid());
    h.put(20, {10, 1'000}, ProofKind::kAttached);
    h.await_text("out", "Too many open files");
}

/// Descriptors 0 to 2 that are missing, sockets or a store.
std::string bad_standard_descriptors(pid_t pid) {
    std::string bad;
    for (const char* fd : {"0", "1", "2"}) {
        std::error_code missing;
        const std::string target = fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd, missing).native();
        if (missing || target.starts_with("socket:") || target.find("data.mdb") != std::string::npos) {
            bad += fd + (" is " + target) + "; ";
        }
    }
    return bad;
}

/// Both started so that nothing, or the end of a standard one, or very many are open.
void restart_with(History& h, const std::string& prelude, bool standard) {
    h.quiet();
    h.stop();
    h.end_listener();
    h.field.set_prelude(prelude);
    h.listen();
    h.run();
    h.put(20);
    h.settle();
    for (const pid_t pid : {h.listener->pid(), h.worker->pid(), h.watchers().at(0)}) {
        EXPECT_TRUE(!standard || bad_standard_descriptors(pid).empty()) << bad_standard_descriptors(pid);
    }
    h.field.set_prelude("");
    h.quiet();
    h.end_listener();
    h.listen(); // the loss is noticed
    h.await_text("log", "line disconnected [0]");
    h.settle();
    h.stop();
    h.run();
}

void close_standard_descriptors(History& h) {
    std::string prelude = "exec";
    const std::uint64_t closed = 1 + h.below(7);
    for (unsigned fd = 0; fd <= 2; ++fd) {
        prelude += (closed >> fd & 1U) != 0 ? " " + std::to_string(fd) + ">&-" : "";
    }
    restart_with(h, prelude + "; exec", true);
}

/// The line watcher waits with select, which knows 1,024: socket, pipe or both lie beyond.
void open_many_descriptors(History& h) {
    static constexpr int kOpen[] = {985, 1010, 1011, 1012, 1013, 1014, 1100};
    restart_with(h,
                 "ulimit -n 4096; for ((i = 10; i < " + std::to_string(10 + h.one_of(kOpen)) +
                     "; ++i)); do eval \"exec $i</dev/null\"; done; exec",
                 false);
}

/// Something else under the name of a file that travels, and the file back again.
class Replaced {
  public:
    Replaced(History& h, const fs::path& path) : path_(path), away_(path.native() + ".away") {
        fs::rename(path_, away_);
        static const std::function<void(const fs::path&)> kReplace[] = {
            [](const fs::path&) {}, [](const fs::path& file) { fs::create_directory(file); },
            [](const fs::path& file) { fs::create_symlink("nothing", file); },
            [](const fs::path& file) { std::ofstream(file).flush(); },
            [](const fs::path& file) { std::ofstream(file).flush(), fs::resize_file(file, 100'000'000); }};
        h.one_of(kReplace)(path_);
    }
    ~Replaced() {
        fs::remove(path_);
        fs::rename(away_, path_);
    }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

  private:
    fs::path path_;
    fs::path away_;
};

void replace_file_on_queue(History& h) {
    static constexpr ProofKind kKinds[] = {ProofKind::kAttached, ProofKind::kFile};
    h.quiet();
    const std::uint64_t dead = h.field.depth(kDeadQueue);
    ::kill(h.worker->pid(), SIGSTOP);
    h.put(1, {1'000, 30'000}, h.one_of(kKinds));
    {
        const Replaced replaced(h, h.last_files().back());
        h.put(5, {10, 1'000}, ProofKind::kData);
        ::kill(h.worker->pid(), SIGCONT);
        await("the dead letter", [&] { return h.field.depth(kDeadQueue) > dead; });
    }
}

/// The listener is frozen meanwhile: the last bytes are still in the file.
void replace_file_being_sent(History& h) {
    h.quiet();
    ::kill(h.listener->pid(), SIGSTOP);
    h.put(1, {30'000'000, 30'000'000}, ProofKind::kFile);
    h.await_text("log", "begin send file[");
    const Replaced replaced(h, h.last_files().back());
    ::kill(h.listener->pid(), SIGCONT);
    h.settle();
}

} // namespace

std::vector<Fault> faults_of_processes() {
    return {
        {"worker killed", {.repeats = 1}, kAny, kill_worker},
        {"worker killed at its start", {.repeats = 4}, kAny, kill_starting_worker},
        {"worker killed, listener frozen", {.repeats = 1}, kAny, kill_worker_behind_frozen_listener},
        {"listener killed", {.cuts = 1, .leftovers = true}, kAny, kill_listener},
        {"listener stopped under load", {.cuts = 1}, kAny, stop_listener},
        {"listener frozen for a while", {}, kAny, [](History& h) { freeze(h, *h.listener); }},
        {"worker frozen for a while", {}, kAny, [](History& h) { freeze(h, *h.worker); }},
        {"putter and getter killed", {}, kAny, kill_putter_and_getter},
        {"frozen writer at the sender", {}, kAny, freeze_writer_at_sender},
        {"frozen writer at the receiver", {}, kAny, freeze_writer_at_receiver},
        {"few descriptors at the start", {.dead = 30}, kAny, few_descriptors_at_start},
        {"no descriptor for a line", {}, kPlain, no_descriptors_for_a_line},
        {"no descriptor for files", {}, kAny, no_descriptors_for_files},
        {"no standard descriptors", {}, kAny, close_standard_descriptors},
        {"a thousand descriptors open", {}, kAny, open_many_descriptors},
        {"file replaced on the queue", {.dead = 1}, kAny, replace_file_on_queue},
        {"file replaced while it is sent", {}, kAny, replace_file_being_sent},
    };
}

} // namespace kvr::test
