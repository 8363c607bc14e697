// SPDX-License-Identifier: MIT
// Room that runs out, and disks that fail: at the sender, where a put is refused or holds, and at the receiver, which
// waits, says why, and goes on by itself.
#include <sys/resource.h>

#include "history.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kLittle = 300'000;

using Leave = std::function<void(std::uint64_t)>;

/// What leaves so many bytes of a disk or of a quota, by the seed, and what is said when they are used up.
std::pair<Leave, const char*> room(History& h, Store& store, const Disk& disk) {
    if (disk.mounted() && h.below(2) == 0) {
        return {[&](std::uint64_t bytes) { disk.leave(bytes); }, "No space left on device"};
    }
    return {[&](std::uint64_t bytes) { leave_quota(store, bytes); }, "quota"};
}

/// A put is refused. The worker drains, ends and starts without room.
void fill_sender(History& h) {
    const auto [leave, said] = room(h, h.field.sender(), h.field.senders_disk());
    h.quiet();
    h.freeze(*h.worker);
    leave(1U << 20U);
    EXPECT_THROW(h.put(100'000, {30'000, 30'000}, ProofKind::kData), Error);
    leave(0);
    ::kill(h.worker->pid(), SIGCONT);
    h.drain();
    leave(0);
    h.stop();
    leave(0);
    h.run();
}

/// One line after the other fills up; all are read to their ends, in their order, once there is room.
void fill_receiver(History& h) {
    const auto [leave, said] = room(h, h.field.receiver(), h.field.receivers_disk());
    h.relisten({"--receive-buffer", "65536"}, {{"SHORTTMR", "1"}});
    leave(h.below(kLittle));
    h.put_too_much(3);
    h.await_text("out", said);
    h.await_text("log", "error[-201]");
    h.await_text("log", "begin connect", 3);
}

/// What finds no room at a stop is counted and told; with room in time nothing is lost.
template <bool kInTime>
void stop_full_listener(History& h) {
    h.relisten();
    leave_quota(h.field.receiver(), kLittle);
    h.put(100, {10'000, 10'000});
    h.await_text("out", "cannot deliver");
    h.drain();
    ::kill(h.listener->pid(), SIGTERM);
    h.await_text("out", "unless there is room");
    leave_quota(h.field.receiver(), kInTime ? 1U << 30U : 0);
    EXPECT_EQ(h.listener->result(), kInTime ? 0 : 1);
    h.listener.reset();
    const std::size_t told = h.since("journal", "\"event\":\"lost\"");
    EXPECT_EQ(told == 0, kInTime);
    EXPECT_EQ(h.since("out", " lost: " + std::to_string(told) + " complete messages"), kInTime ? 0U : 1U);
}

/// The receiver's disk fails in this way until it has said so, or by chance or slowly while all gets through.
void trouble_receiver(History& h) {
    static const char* const kTroubles[][2] = {{"write 28 1", "reading stops until it works"},
                                               {"any 30 1", "reading stops until it works"},
                                               {"any 5 300", ""},
                                               {"fsync 0 1 10", ""}};
    const auto& [how, said] = h.one_of(kTroubles);
    h.relisten();
    h.field.trouble("listener", how);
    h.put(200, {10, 3'000});
    *said == '\0' ? h.settle() : h.await_text("out", said);
}

/// A worker whose store fails, at each flush or by chance, goes on, or ends with an error that its log names; the next
/// one repeats nothing.
void trouble_worker(History& h) {
    const bool flushes = h.below(2) == 0;
    const auto await_end_or_drain = [&] {
        await("an end or a drained queue", [&] { return has_ended(*h.worker) || (!flushes && h.field.depth() == 0); });
    };
    h.field.trouble("worker", flushes ? "fsync 5 1" : "any 5 10");
    h.put(60, {10, 3'000});
    await_end_or_drain();
    h.field.trouble("worker", "");
    h.put(1); // a failure of its last commit shows at the latest now
    await_end_or_drain();
    if (has_ended(*h.worker)) {
        EXPECT_EQ(h.worker->result(), 1);
        EXPECT_TRUE(!flushes || h.since("log", "Input/output error") > 0); // by chance it is that line that fails
        h.worker.reset();
    }
}

/// No descriptor is left for files: they wait.
void take_descriptors(History& h) {
    h.relisten();
    h.settle(); // it has its connection
    rlimit before{};
    ::prlimit(h.listener->pid(), RLIMIT_NOFILE, nullptr, &before);
    const rlimit few{3, before.rlim_max};
    ::prlimit(h.listener->pid(), RLIMIT_NOFILE, &few, nullptr);
    h.put(20, {10, 1'000}, ProofKind::kAttached);
    h.await_text("out", "cannot store a file [24:");
    ::prlimit(h.listener->pid(), RLIMIT_NOFILE, &before, nullptr);
}

/// Another sender's unfinished file has all the room: it goes.
void fill_spool(History& h) {
    if (!h.field.receivers_disk().mounted()) {
        return;
    }
    h.relisten({"--idle-time", "1"});
    h.field.receivers_disk().leave(4U << 20U);
    const RawLine silent(h.field.port());
    const std::string whole = bind_frame("SILENT") + file_message(kTarget, {"f", std::string(20'000'000, 'f')});
    (void)silent.send(whole.substr(0, 5'000'000));
    h.await_text("out", "cannot store a file [28:");
    h.put(5, {10, 10'000}, ProofKind::kFile);
    h.settle();
}

void take_spool_away(History& h) {
    const fs::path spool = h.field.spool();
    h.relisten();
    fs::rename(spool, spool.native() + ".elsewhere");
    h.put(3, {10, 500}, ProofKind::kFile);
    h.await_text("out", "was moved");
    fs::rename(spool.native() + ".elsewhere", spool);
}

} // namespace

std::vector<Fault> faults_of_disks() {
    return {
        {"sender full", fill_sender},
        {"receiver full over send time-outs", fill_receiver},
        {"full listener stopped", stop_full_listener<false>, {.cuts = 1, .leftovers = true}},
        {"full listener stopped, room in time", stop_full_listener<true>},
        {"receiver's disk in trouble", trouble_receiver},
        {"sender's disk in trouble", trouble_worker, {.dead = 1}},
        {"no descriptor for files", take_descriptors},
        {"spool filled by one that falls silent", fill_spool, {}, Fault::Carriers::kPlain},
        {"spool taken away", take_spool_away},
    };
}

} // namespace kvr::test
