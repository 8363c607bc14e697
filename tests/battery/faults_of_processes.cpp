// SPDX-License-Identifier: MIT
// What happens to the processes around a channel: killed, frozen, in each other's way, short of descriptors, with files
// that change under their hands. And one stop request in every state in which a channel can block: it ends as stopped,
// the message in hand is back on its queue, and one that was sent is not repeated.

#include <fcntl.h>

#include "history.h"
#include "support/raw_line.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using enum Fault::Carriers;

/// At a line of the log that marks a step of a message's road, or anywhere.
void kill_worker(History& h) {
    static const char* const kSteps[] = {"start recv msg", "start write chl hdr", "begin send file[", "real size["};
    h.put(80);
    h.await_text("log", h.one_of(kSteps), h.below(20));
    h.pause_up_to(10'000);
    h.kill(h.worker);
    await("the end of the watcher", [&] { return processes_with((h.field.home() / "log").native()).empty(); });
    h.run();
    EXPECT_EQ(h.since("log", "is stale: that process does not run it; taken over"), 1U);
}

/// What the old line still carries comes before all of the new one. (Over TLS a late ticket to the dead would reset
/// it.)
void kill_worker_behind_frozen_listener(History& h) {
    h.quiet();
    h.freeze(*h.listener);
    h.put(120, {10'000, 10'000}, ProofKind::kData);
    h.await_text("log", "real size[", 110);
    h.kill(h.worker);
    h.start();
    h.put(30, {1'000, 1'000}, ProofKind::kData);
    h.drain();
    ::kill(h.listener->pid(), SIGCONT);
}

void kill_listener(History& h) {
    const std::uint64_t before = h.field.arrived();
    h.put(200);
    await("some messages", [&] { return h.field.arrived() > before; });
    h.pause_up_to(30'000);
    h.kill(h.listener);
}

/// The worker says what it waits for and can be stopped; other programs name the process.
void freeze_writer_at_sender(History& h) {
    h.quiet();
    h.freeze(*h.worker);
    h.put(5);
    const Child writer = frozen_writer(h.field.qmgr(kSender));
    ::kill(h.worker->pid(), SIGCONT);
    const std::string name = "process " + std::to_string(writer.pid());
    h.await_text("log", "waiting for " + name + ",");
    ::kill(h.worker->pid(), SIGTERM);
    EXPECT_EQ(h.worker->result(), 0);
    h.worker.reset();
    EXPECT_EQ(h.field.start(kSender, {"stop", kChannel}).result(), 1);
    EXPECT_EQ(h.field.start(kSender, {"status"}).result(), 0);
    EXPECT_EQ(h.since("out", name + " is stopped in the middle of a write"), 1U);
}

void freeze_writer_at_receiver(History& h) {
    h.relisten();
    const Child writer = frozen_writer(h.field.qmgr(kReceiver));
    h.put(20);
    h.await_text("out", "gave up waiting for process " + std::to_string(writer.pid()) + ",");
}

/// Of the first few it is the system's loader that refuses, in words of its own.
void few_descriptors_at_start(History& h) {
    h.stop();
    h.put(5);
    h.field.set_prelude("ulimit -n " + std::to_string(4 + h.below(24)) + "; exec");
    h.start();
    await("the end of the worker or of the queue", [&] { return has_ended(*h.worker) || h.field.depth() == 0; });
    if (!has_ended(*h.worker)) {
        return h.stop();
    }
    EXPECT_NE(h.worker->result(), 0);
    h.worker.reset();
    const char* said = "Too many open files";
    EXPECT_GT(h.since("out", said) + h.since("log", said) + h.since("out", "Error 24"), 0U);
}

/// Some of 0 to 2 are closed at the start: neither sockets nor stores take their place. Or so many are open that
/// socket, pipe or both are beyond what select knows.
void start_with_odd_descriptors(History& h) {
    static const char* const kClosed[] = {"exec 0>&-", "exec 1>&-", "exec 2>&-", "exec 0>&- 2>&-"};
    static constexpr int kOpen[] = {985, 1010, 1011, 1012, 1013, 1014, 1100};
    const std::string many = "ulimit -n 4096; for ((i = 10; i < " + std::to_string(10 + h.one_of(kOpen)) +
                             "; ++i)); do eval \"exec $i</dev/null\"; done";
    h.stop_at_rest();
    h.end_listener();
    h.field.set_prelude((h.below(2) == 0 ? many : h.one_of(kClosed)) + "; exec");
    h.listen();
    h.run();
    h.put(20);
    h.settle();
    for (const pid_t pid : {h.listener->pid(), h.worker->pid(), h.watchers().at(0)}) {
        for (const char* fd : {"0", "1", "2"}) {
            const fs::path there = fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd);
            EXPECT_FALSE(there.native().starts_with("socket:") || there.filename() == "data.mdb") << fd << there;
        }
    }
    h.end_listener();
    h.await_text("log", "line disconnected [0]"); // the watcher works
    h.stop();
}

/// Another file has its name while it travels: on the queue, or with the last bytes still in it.
void replace_file(History& h) {
    h.quiet();
    const bool sent = h.below(2) == 0;
    Child& frozen = *(sent ? h.listener : h.worker);
    const std::uint64_t dead = h.field.depth(kDeadQueue) + (sent ? 0 : 1);
    h.freeze(frozen);
    h.put(1, {30'000'000, 30'000'000}, ProofKind::kFile);
    h.await_text("log", "begin send file[", sent ? 1 : 0);
    const fs::path file = h.last_files().back();
    const fs::path away = file.native() + ".away";
    fs::rename(file, away);
    std::ofstream(file).flush();
    ::kill(frozen.pid(), SIGCONT);
    h.drain();
    fs::rename(away, file);
    EXPECT_EQ(h.field.depth(kDeadQueue), dead);
}

void hang_up(History& h) {
    h.quiet();
    for (const char* file : {"log", "journal"}) {
        fs::rename(h.field.home() / file, h.field.home() / (std::string(file) + ".old"));
    }
    h.mark();
    ::kill(h.worker->pid(), SIGHUP);
    ::kill(h.listener->pid(), SIGHUP);
    h.put(50);
    h.await_text("log", "log reopened");
    h.await_text("journal", R"("event":"message")");
    h.settle();
    EXPECT_EQ(h.since("journal", "\"event\":\"connect\""), 0U);
}

/// A listening socket that takes no more connections: what is sent to it vanishes, as behind a router that drops.
struct BlackHole {
    const UniqueFd socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const int port = bind_to_loopback(socket.get());
    const int listens = ::listen(socket.get(), 0);
    const RawLine only{port}; ///< there is no place for a second one
};

/// Right after the last send, to a reader that has not read it.
void stop_before_slow_reader(History& h) {
    h.relisten({"--read-rate", "500000", "--receive-buffer", "4096"});
    h.put(20, {50'000, 50'000}, ProofKind::kData);
    h.await_text("log", "send 50000 real size", 20);
    h.stop();
    const auto lines = [&](const char* event) { return h.since("journal", std::string("\"event\":\"") + event + '"'); };
    await("the reader, which keeps no order", [&] { return lines("connect") > 0 && lines("end") == lines("connect"); });
}

/// The line is found lost with a message in hand, and nothing answers: no retries are left, and no dead-letter queue.
void stop_with_message_in_hand(History& h) {
    const BlackHole hole;
    h.stop_at_rest();
    h.field.set_qmgr({{"DEADQ", ""}});
    h.field.set_channel({{"SHORTRTY", "0"}, {"SHORTTMR", "0"}});
    h.run();
    ::kill(h.watchers().at(0), SIGSTOP);
    h.end_listener();
    h.field.point_at(hole.port);
    h.mark();
    h.put(1);
    h.await_text("log", "begin connect");
    h.stop();
    EXPECT_EQ(h.field.depth(), 1U);
}

/// What stands in the buffers of the line goes with it.
void stop_in_stalled_write(History& h) {
    h.relisten({"--stall-after", "100000", "--receive-buffer", "4096"}, {{"SHORTTMR", "0"}});
    h.put_too_much();
    std::size_t size = 0;
    int same = 0;
    await("a write that stands still", [&] { // seen in that nothing is logged over many looks
        const std::size_t before = std::exchange(size, h.field.text("log").size());
        same = size == before ? same + 1 : 0;
        return same > 100;
    });
    EXPECT_GT(h.field.depth(), 0U);
    h.stop();
}

void stop_in_handshake(History& h) {
    h.relisten({"--no-handshake"}, {{"SHORTTMR", "0"}});
    h.put(3);
    h.await_text("journal", "\"event\":\"connect\"");
    h.stop();
}

/// With as many bytes of the largest file on their way as the seed says.
void stop_in_file(History& h) {
    h.relisten({"--read-rate", "80000000"});
    h.put(1, {99'999'999, 99'999'999}, ProofKind::kFile);
    h.await_text("log", "begin send file[");
    h.pause_up_to(30'000);
    h.stop();
}

} // namespace

std::vector<Fault> faults_of_processes() {
    return {
        {"worker killed", kill_worker, {.repeats = 1}},
        {"worker killed, listener frozen", kill_worker_behind_frozen_listener, {.repeats = 1}, kPlain},
        {"listener killed", kill_listener, {.cuts = 1, .leftovers = true}},
        {"frozen writer at the sender", freeze_writer_at_sender},
        {"frozen writer at the receiver", freeze_writer_at_receiver},
        {"few descriptors at the start", few_descriptors_at_start, {.dead = 30}},
        {"standard descriptors closed, or a thousand open", start_with_odd_descriptors},
        {"file replaced", replace_file, {.dead = 1}},
        {"hang-up", hang_up},
        {"stop before a slow reader", stop_before_slow_reader},
        {"stop with a message in hand", stop_with_message_in_hand},
        {"stop in a stalled write", stop_in_stalled_write, {.cuts = 1}},
        {"stop in a handshake", stop_in_handshake, {}, kTls},
        {"stop in a file", stop_in_file},
    };
}

} // namespace kvr::test
