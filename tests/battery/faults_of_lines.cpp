// SPDX-License-Identifier: MIT
// What the other end, others that hold it up, or the line to it, do to a channel.
#include "history.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

using enum Fault::Carriers;

/// The first line is ended at a byte, or reset there or under load.
void cut(History& h) {
    const std::string byte = std::to_string(1 + h.below(30'000));
    const Words cuts[] = {
        {"--awkward-first", "1", "--close-after", byte},
        {"--awkward-first", "1", "--reset-after", byte},
        {"--awkward-first", "1", "--reset-after", "1000000", "--read-rate", "4000000", "--receive-buffer", "65536"},
    };
    h.relisten(h.one_of(cuts));
    h.put(150, {10'000, 20'000});
    h.await_text("out", "on purpose after");
}

/// A write that stands still for a second fails, and its message goes over a new line.
void stall(History& h) {
    static const char* const kStalls[][2] = {{"--stall-after", "100000"}, {"--stall-after", "0"}, {"--read-rate", "1"}};
    const auto& [option, value] = h.one_of(kStalls);
    h.relisten({option, value, "--receive-buffer", "4096", "--awkward-first", "1"}, {{"SHORTTMR", "1"}});
    h.put_too_much();
    h.await_text("log", "error[-201]");
}

/// A write that takes longer than the send time-out is no failure while it moves.
void move_slowly(History& h) {
    h.relisten({"--read-rate", "700000", "--receive-buffer", "65536"}, {{"SHORTTMR", "2"}});
    // The first ones find room in the buffers between.
    h.put(4, {2'000'000, 2'000'000}, ProofKind::kData);
    h.put(1, {1, 1'500'000}, ProofKind::kFile);
    h.settle();
    EXPECT_EQ(h.since("log", "error[-201]"), 0U);
}

void refuse(History& h) {
    h.relisten({"--refuse", "--awkward-first", "2"});
    h.put(20);
    h.await_text("log", "] success", 3);
}

/// Its watcher is killed or frozen: the loss is found with the next message. The receiver is away for a while.
void lose_unnoticed(History& h) {
    h.quiet();
    const int signal = h.below(2) == 0 ? SIGKILL : SIGSTOP;
    for (const pid_t watcher : h.watchers()) {
        ::kill(watcher, signal);
    }
    h.end_listener();
    h.put(20);
    h.await_text("log", "Connection refused", 3);
}

/// A handshake that nobody answers ends by the send time-out.
void be_silent(History& h) {
    h.relisten({"--no-handshake", "--awkward-first", "1"}, {{"SHORTTMR", "1"}});
    h.put(5);
    h.await_text("log", "error[timed out]");
}

/// More lines than anything that leaks could hide behind, twice, with so many messages at hand.
void make_lines(History& h, std::size_t messages) {
    constexpr std::size_t kLines = 30;
    constexpr std::uint64_t kGrowthKib = 256;
    const auto memory = [&] { return memory_of(h.worker->pid(), "RssAnon"); };
    const auto make = [&] {
        const std::size_t wanted = h.field.journalled("connect") + kLines;
        await("lines", [&] {
            if (h.field.depth() < messages) {
                h.put(messages, {400, 800});
            }
            return h.field.journalled("connect") >= wanted;
        });
    };
    make();
    const std::uint64_t before = memory();
    make();
    await("no growth", [&] { return memory() <= before + kGrowthKib; });
    h.end_listener();
}

/// Each line ends between two messages or in one.
void reconnect(History& h) {
    h.stop_at_rest();
    h.field.set_channel({{"TRIALTMR", "0"}}); // or each would have to last longer
    h.run();
    h.relisten({"--close-after", "3000"});
    make_lines(h, 50);
}

void fail_handshakes(History& h) {
    const TlsMaterial& tls = tls_material();
    const TlsIdentity bad[] = {tls.foreign_server, tls.expired_server};
    h.field.set_identity(h.one_of(bad));
    h.relisten();
    make_lines(h, 3);
    EXPECT_EQ(h.field.depth(), 3U);
}

/// Others: silent, in mid-frame, in a handshake, with a length that never comes.
void crowd(History& h) {
    std::string claim = bind_frame("HALF") + frame('0', kTarget, "00000000", "00000000", "");
    claim.replace(claim.size() - 8, 8, "02100000");
    const Words streams = {"", bind_frame("HALF").substr(0, 40), claim, claim + std::string(100'000, 'p'),
                           "\x16\x03\x01"};
    h.quiet(); // what was lost before has been told
    std::vector<RawLine> peers;
    for (int i = 0; i < 200; ++i) {
        peers.emplace_back(h.field.port());
        (void)peers.back().offer(h.one_of(streams));
    }
    h.put(100);
    h.settle();
    EXPECT_EQ(h.since("log", "line disconnected [0]"), 0U);
}

} // namespace

std::vector<Fault> faults_of_lines() {
    return {
        {"line cut", cut, {.cuts = 1}},
        {"receiver that stands still", stall, {.cuts = 1}},
        {"receiver that is slow", move_slowly},
        {"receiver that accepts and closes", refuse, {.cuts = 2}},
        {"line lost without its watcher", lose_unnoticed},
        {"silent handshake", be_silent, {}, kTls},
        {"failed handshakes", fail_handshakes, {}, kTls},
        {"60 reconnects", reconnect, {.cuts = 150, .dead = 4}},
        {"crowd of half-open peers", crowd},
    };
}

} // namespace kvr::test
