// SPDX-License-Identifier: MIT
// What the other end, or the line to it, does to a channel.
#include "history.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

using enum Fault::Carriers;

/// A listener whose first line is bad in this way, from the rest on.
void first_line(History& h, Words options) {
    options.insert(options.end(), {"--awkward-first", "1"});
    h.relisten(options);
}

void cut_at_a_byte(History& h, const char* option) {
    first_line(h, {option, std::to_string(1 + h.below(30'000))});
    h.put(60);
    h.await_text("out", "on purpose after");
}

void cut_a_slow_reader(History& h) {
    first_line(h, {"--reset-after", "1000000", "--read-rate", "4000000", "--receive-buffer", "65536"});
    h.put(200, {16'384, 16'384}, ProofKind::kData);
    h.await_text("out", "on purpose after");
}

/// A write that stands still for a second fails, and its message goes over a new line.
void stall(History& h) {
    static const Words kStalls[] = {{"--stall-after", "100000"}, {"--stall-after", "0"}, {"--read-rate", "1"}};
    h.field.set_channel({{"SHORTTMR", "1"}});
    Words options = h.one_of(kStalls);
    options.insert(options.end(), {"--receive-buffer", "4096"});
    first_line(h, options);
    h.put_too_much();
    h.await_text("log", "error[-201]");
    h.field.set_channel({{"SHORTTMR", "30"}});
    h.relisten();
}

/// A write that takes longer than the send time-out is no failure while it moves.
void move_slowly(History& h) {
    h.field.set_channel({{"SHORTTMR", "1"}});
    h.relisten({"--read-rate", "3000000", "--receive-buffer", "65536"});
    h.put(3, {2'000'000, 2'000'000}, ProofKind::kData);
    h.put(1, {1, 1'500'000}, ProofKind::kFile);
    h.settle();
    EXPECT_EQ(h.since("log", "error[-201]"), 0U);
    h.field.set_channel({{"SHORTTMR", "30"}});
    h.relisten();
}

void refuse(History& h) {
    h.relisten({"--refuse", "--awkward-first", "2"});
    h.put(20);
    h.await_text("log", "] success", 3);
}

void be_away(History& h) {
    h.quiet();
    h.end_listener();
    h.put(20);
    h.await_text("log", "Connection refused", 3);
    h.listen();
}

/// The loss is told by the watcher, or found with the next message.
void answer(History& h, Words options) {
    first_line(h, std::move(options));
    h.put(20);
    h.await_text("journal", "\"event\":\"connect\"", 2);
}

/// A handshake that nobody answers ends by the send time-out.
void be_silent(History& h) {
    h.field.set_channel({{"SHORTTMR", "1"}});
    first_line(h, {"--no-handshake"});
    h.put(5);
    h.await_text("log", "error[timed out]");
    h.field.set_channel({{"SHORTTMR", "30"}});
}

/// More reconnects than anything that leaks could hide behind; each line ends between two messages or in one.
void reconnect(History& h) {
    constexpr std::size_t kLines = 30;
    h.relisten({"--close-after", "3000"});
    h.expect_no_growth([&] {
        const std::size_t wanted = h.field.journalled("connect") + kLines;
        await("lines", [&] {
            if (h.field.depth() < 50) {
                h.put(50, {400, 800});
            }
            return h.field.journalled("connect") >= wanted;
        });
    });
    h.end_listener();
    h.listen();
}

void fail_handshakes(History& h) {
    constexpr std::size_t kLines = 30;
    const TlsMaterial& tls = tls_material();
    const TlsIdentity bad[] = {tls.foreign_server, tls.expired_server, tls.future_server, tls.self_signed_server};
    h.field.set_identity(h.one_of(bad));
    h.relisten();
    h.put(3);
    h.expect_no_growth([&] {
        const std::size_t wanted = h.field.journalled("connect") + kLines;
        await("failed handshakes", [&] { return h.field.journalled("connect") >= wanted; });
    });
    EXPECT_EQ(h.field.depth(), 3U);
    h.end_listener();
    h.field.set_identity(tls_material().server);
    h.listen();
}

/// Of another authority: with TLS 1.3 it shows when the line seems to be up.
void refuse_certificate(History& h) {
    const TlsMaterial& tls = tls_material();
    h.relisten({"--ca", tls.ca_file, "--client-cert", "required"});
    h.settle();
    h.stop();
    h.field.set_qmgr({{"CERTFILE", tls.foreign_server.cert_file}, {"KEYFILE", tls.foreign_server.key_file}});
    h.field.set_channel({{"SHORTRTY", "0"}});
    h.put(1);
    const std::size_t binds = h.field.journalled("bind");
    h.worker.emplace(h.field.run_channel());
    h.await_text("out", "TLS handshake failed");
    const int result = h.worker->result_under(SIGTERM); // it may have ended by itself, with its last attempt
    EXPECT_TRUE(result == 0 || result == 1) << result;
    EXPECT_EQ(h.field.journalled("bind"), binds);
    h.field.set_qmgr({{"CERTFILE", tls.client.cert_file}, {"KEYFILE", tls.client.key_file}});
    h.field.set_channel({{"SHORTRTY", "999999999"}});
    h.run();
}

/// Others that hold the listener up: silent, in mid-frame, in a handshake, with a length that never comes.
void crowd(History& h) {
    std::string claim = frame('0', kTarget, "00000000", "00000000", "");
    claim.replace(claim.size() - 8, 8, "02100000");
    const std::string streams[] = {"", bind_frame("HALF").substr(0, 40), bind_frame("HALF") + claim,
                                   bind_frame("HALF") + claim + std::string(100'000, 'p'),
                                   std::string("\x16\x03\x01\x3f\xff\x01\x00\x3f\xfb\x03\x03", 11) +
                                       std::string(8'000, 'h')};
    std::vector<RawLine> peers;
    for (std::size_t i = 0; i < 200; ++i) {
        peers.emplace_back(h.field.port());
        (void)peers.back().offer(h.one_of(streams));
    }
    h.put(100);
    h.settle();
    EXPECT_EQ(h.since("log", "line disconnected [0]"), 0U);
}

void idle(History& h) {
    h.quiet();
    h.stop();
    h.field.set_channel({{"HBINT", "1"}});
    h.run();
    h.await_text("log", "heartbeat channel[");
    EXPECT_EQ(h.since("journal", "\"event\":\"connect\""), 1U);
    h.put(20);
    h.settle();
    h.field.set_channel({{"HBINT", "0"}});
    h.stop();
    h.run();
}

/// The loss is found with the next message: nobody reports it.
void lose_unnoticed(History& h, int signal) {
    h.quiet();
    for (const pid_t watcher : h.watchers()) {
        ::kill(watcher, signal);
    }
    h.end_listener();
    h.listen();
    h.put(20);
}

} // namespace

std::vector<Fault> faults_of_lines() {
    return {
        {"line ended at a byte", {.cuts = 1}, kAny, [](History& h) { cut_at_a_byte(h, "--close-after"); }},
        {"line reset at a byte", {.cuts = 1}, kAny, [](History& h) { cut_at_a_byte(h, "--reset-after"); }},
        {"line of a slow reader reset", {.cuts = 1}, kAny, cut_a_slow_reader},
        {"receiver that stands still", {.cuts = 1}, kAny, stall},
        {"receiver that is slow", {}, kAny, move_slowly},
        {"receiver that accepts and closes", {.cuts = 2, .dead = 1}, kAny, refuse},
        {"receiver away for a while", {}, kAny, be_away},
        {"receiver that answers",
         {.cuts = 1},
         kAny,
         [](History& h) {
             answer(h, {"--send", "20000"});
         }},
        {"TLS alert",
         {.cuts = 1},
         kTls,
         [](History& h) {
             answer(h, {"--close-after", "82", "--close-notify"});
         }},
        {"silent handshake", {}, kTls, be_silent},
        {"failed handshakes", {}, kTls, fail_handshakes},
        {"client certificate refused", {.cuts = 1, .dead = 1}, kTls, refuse_certificate},
        {"60 reconnects", {.cuts = 150, .dead = 4}, kAny, reconnect},
        {"crowd of half-open peers", {}, kAny, crowd},
        {"idle line with heartbeats", {}, kAny, idle},
        {"watcher killed, line lost", {}, kAny, [](History& h) { lose_unnoticed(h, SIGKILL); }},
        {"watcher frozen, line lost", {}, kAny, [](History& h) { lose_unnoticed(h, SIGSTOP); }},
    };
}

} // namespace kvr::test
