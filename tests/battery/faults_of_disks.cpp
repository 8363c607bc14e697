// SPDX-License-Identifier: MIT
// Room that runs out, and disks that fail: at the sender, where a put is refused or holds, and at the receiver, which
// waits, says why, and goes on by itself.
#include <fcntl.h>

#include "history.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using enum Fault::Carriers;

constexpr std::uint64_t kLittle = 300'000;
constexpr std::uint64_t kEnough = 1U << 30U;

void leave_quota(Store& store, std::uint64_t bytes) {
    store.change_settings({{"quota", std::to_string(store.usage().bytes + bytes)}});
}

/// Puts until one is refused for want of room; so is one of a program, once nothing that was freed is left for it, and
/// nothing of it is there.
void put_until_full(History& h, const std::string& reason) {
    const std::string spare = "SPARE." + std::to_string(h.last());
    h.field.sender().queue_define(spare, "");
    try {
        for (;;) {
            h.put(1, {30'000, 30'000}, ProofKind::kData);
        }
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), Errc::kFull) << error.what();
    }
    await("a put that is refused", [&] {
        const std::uint64_t depth = h.field.depth(spare.c_str());
        const bool refused = h.field.start(kSender, {"put", spare, std::string(30'000, 'x')}).result() == 1;
        EXPECT_EQ(h.field.depth(spare.c_str()), depth + (refused ? 0 : 1));
        return refused;
    });
    h.await_text("out", reason);
}

void use_up_senders_quota(History& h) {
    h.quiet();
    ::kill(h.worker->pid(), SIGSTOP);
    leave_quota(h.field.sender(), kLittle);
    put_until_full(h, "quota");
    ::kill(h.worker->pid(), SIGCONT);
    await("the queue to drain", [&] { return h.field.depth() == 0; });
    leave_quota(h.field.sender(), kEnough);
}

void use_up_receivers_quota(History& h) {
    h.relisten();
    leave_quota(h.field.receiver(), kLittle);
    h.put(100, {10'000, 10'000});
    h.await_text("out", "cannot deliver");
    leave_quota(h.field.receiver(), kEnough);
}

/// One line after the other fills up; all are read to their ends, in their order, once there is room.
void outlast_send_time_outs(History& h) {
    h.field.set_channel({{"SHORTTMR", "1"}});
    h.relisten({"--receive-buffer", "65536"});
    leave_quota(h.field.receiver(), kLittle);
    h.put_too_much(3);
    h.await_text("log", "error[-201]");
    h.await_text("log", "begin connect", 3);
    leave_quota(h.field.receiver(), kEnough);
    h.field.set_channel({{"SHORTTMR", "30"}});
}

/// The receiver's disk fails in this way until it has said so, under load.
void trouble_receiver(History& h, const char* how, const char* said) {
    h.relisten();
    h.field.trouble("listener", how);
    for (int i = 0; i < 10; ++i) {
        h.put(20, {10, 3'000});
        if (*said == '\0') {
            await("a shorter queue", [&] { return h.field.depth() < 20; });
        }
    }
    if (*said != '\0') {
        h.await_text("out", said);
    }
    h.field.trouble("listener", "");
}

/// A worker whose store fails goes on, or ends with an error that its log names; the next one repeats nothing.
void trouble_worker(History& h, const char* how, bool ends) {
    h.field.trouble("worker", how);
    h.put(60, {10, 3'000});
    const auto ends_or_gets_on = [&] { return has_ended(*h.worker) || (!ends && h.field.depth() == 0); };
    await("the worker to end or to get on", ends_or_gets_on);
    h.field.trouble("worker", "");
    h.put(1); // a failure of its last commit shows at the latest now
    await("the worker to end or to get on", ends_or_gets_on);
    if (has_ended(*h.worker)) {
        EXPECT_EQ(h.worker->result(), 1);
        EXPECT_TRUE(!ends || h.since("log", "Input/output error") > 0); // by chance it is that line that fails
        h.run();
    }
}

void lose_a_put(History& h) {
    h.field.trouble("other", "fsync 5 1");
    const std::uint64_t depth = h.field.depth(kDeadQueue);
    EXPECT_EQ(h.field.start(kSender, {"put", kDeadQueue, "lost"}).result(), 1);
    h.await_text("out", "Input/output error");
    h.field.trouble("other", "");
    EXPECT_EQ(h.field.depth(kDeadQueue), depth);
}

/// The environment is refused from then on: it is opened anew, and the write is done once.
void fail_head_page(History& h) {
    static const char* const kWho[] = {"worker", "listener", "other"};
    const std::string who = h.one_of(kWho);
    h.quiet();
    h.field.trouble(who, h.below(2) == 0 ? "head" : "told");
    if (who == "other") {
        EXPECT_EQ(h.field.start(kSender, {"define", "queue", "HEAD." + std::to_string(h.last())}).result(), 0);
    }
    await("the failure", [&] {
        h.put(5, {10, 100});
        h.settle();
        return !h.field.troubled(who);
    });
    h.put(5);
    h.await_text(who == "worker" ? "log" : "out", "opened anew");
}

void fill_senders_disk(History& h) {
    const Disk& disk = h.field.senders_disk();
    if (h.skips(!disk.mounted())) {
        return;
    }
    h.quiet();
    ::kill(h.worker->pid(), SIGSTOP);
    disk.leave(1 << 20);
    put_until_full(h, "No space left on device");
    disk.leave(0);
    ::kill(h.worker->pid(), SIGCONT);
    await("the queue to drain", [&] { return h.field.depth() == 0; });
    disk.leave(0);
    h.stop(); // whose status finds room, as that of the next start
    disk.leave(0);
    h.run();
    disk.give_back();
}

void fill_receivers_disk(History& h) {
    if (h.skips(!h.field.receivers_disk().mounted())) {
        return;
    }
    h.relisten();
    h.field.receivers_disk().leave(h.below(kLittle));
    h.put(60);
    h.put(60, {5'000, 50'000});
    h.await_text("out", "No space left on device");
    h.field.receivers_disk().give_back();
}

/// What an unfinished file of one that fell silent takes is given to others.
void fill_spool_and_fall_silent(History& h) {
    if (h.skips(!h.field.receivers_disk().mounted())) {
        return;
    }
    h.relisten({"--idle-time", "1"});
    h.field.receivers_disk().leave(4U << 20U);
    const RawLine silent(h.field.port());
    (void)silent.send(bind_frame("SILENT") +
                      frame('4', kTarget, "00000000", "00000000", block('2', 0) + padded("name", 20)) +
                      digits(20'000'000) + std::string(5'000'000, 'f'));
    h.await_text("out", "cannot store a file [28:");
    h.put(5, {10, 10'000}, ProofKind::kFile);
    h.settle();
    h.field.receivers_disk().give_back();
}

/// Bodies that wait for files which find no room: memory stays small whoever sends them.
void fill_memory(History& h) {
    h.relisten();
    const std::uint64_t before = memory_of(h.listener->pid(), "VmHWM");
    h.field.trouble("listener", "write 28 1");
    std::vector<RawLine> lines;
    for (int i = 0; i < 200; ++i) {
        lines.emplace_back(h.field.port());
        (void)lines.back().offer(bind_frame("C" + std::to_string(i)) +
                                 message_with_files("NOWHERE", std::string(500'000, 'b'), {{"a", "x"}}));
    }
    h.await_text("out", "while memory is short");
    EXPECT_LT(memory_of(h.listener->pid(), "VmHWM"), before + (60U << 10U));
    lines.clear();
    h.field.trouble("listener", "");
}

void take_spool_away(History& h) {
    const fs::path spool = h.field.spool();
    const fs::path elsewhere = spool.native() + ".elsewhere";
    h.relisten();
    fs::rename(spool, elsewhere);
    h.put(3, {10, 500}, ProofKind::kFile);
    h.await_text("out", "was moved");
    fs::rename(elsewhere, spool);
}

/// What finds no room at a stop is counted and told; with room in time nothing is lost.
void stop_full_listener(History& h, bool room) {
    h.relisten();
    leave_quota(h.field.receiver(), kLittle);
    h.put(100, {10'000, 10'000});
    h.await_text("out", "cannot deliver");
    await("the queue to drain", [&] { return h.field.depth() == 0; });
    ::kill(h.listener->pid(), SIGTERM);
    h.await_text("out", "unless there is room");
    if (room) {
        leave_quota(h.field.receiver(), kEnough);
    }
    EXPECT_EQ(h.listener->result(), room ? 0 : 1);
    const std::size_t told = h.since("journal", "\"event\":\"lost\"");
    EXPECT_EQ(told == 0, room);
    EXPECT_EQ(h.since("out", " lost: " + std::to_string(told) + " complete messages"), room ? 0U : 1U);
    leave_quota(h.field.receiver(), kEnough);
    h.listen();
}

} // namespace

std::vector<Fault> faults_of_disks() {
    return {
        {"sender's quota used up", {}, kAny, use_up_senders_quota},
        {"receiver's quota used up", {}, kAny, use_up_receivers_quota},
        {"receiver full over send time-outs", {}, kAny, outlast_send_time_outs},
        {"full listener stopped",
         {.cuts = 1, .leftovers = true},
         kAny,
         [](History& h) { stop_full_listener(h, false); }},
        {"full listener stopped, room in time", {}, kAny, [](History& h) { stop_full_listener(h, true); }},
        {"spool without room",
         {},
         kAny,
         [](History& h) { trouble_receiver(h, "write 28 1", "No space left on device"); }},
        {"receiver's disk read-only",
         {},
         kAny,
         [](History& h) { trouble_receiver(h, "any 30 1", "Read-only file system"); }},
        {"receiver's disk fails by chance", {}, kAny, [](History& h) { trouble_receiver(h, "any 5 50", ""); }},
        {"receiver's disk slow", {}, kAny, [](History& h) { trouble_receiver(h, "fsync 0 1 10", ""); }},
        {"flushes of the worker fail", {}, kAny, [](History& h) { trouble_worker(h, "fsync 5 1", true); }},
        {"sender's disk fails by chance", {.dead = 1}, kAny, [](History& h) { trouble_worker(h, "any 5 10", false); }},
        {"flush of a put fails", {}, kAny, lose_a_put},
        {"head page of a store fails", {}, kAny, fail_head_page},
        {"memory of the listener asked for", {.cuts = 1, .leftovers = true}, kPlain, fill_memory},
        {"spool taken away", {}, kAny, take_spool_away},
        {"sender's disk full", {}, kAny, fill_senders_disk},
        {"receiver's disk full", {}, kAny, fill_receivers_disk},
        {"spool filled by one that falls silent", {}, kPlain, fill_spool_and_fall_silent},
    };
}

} // namespace kvr::test
