// SPDX-License-Identifier: MIT
// One stop request in every state in which a channel can block: it ends as stopped, the message in hand is back on its
// queue, and one that was sent is not repeated. And signals that stop nothing.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "history.h"
#include "support/raw_line.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using enum Fault::Carriers;

/// A listening socket that takes no more connections: what is sent to it vanishes, as behind a router that drops.
class BlackHole {
  public:
    BlackHole() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* general = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(socket_, general, length) + ::listen(socket_, 0), 0);
        EXPECT_EQ(::getsockname(socket_, general, &length), 0);
        port_ = ntohs(address.sin_port);
        only_.emplace(port_);
    }
    ~BlackHole() { ::close(socket_); }
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;

    [[nodiscard]] int port() const { return port_; }

  private:
    int socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int port_ = 0;
    std::optional<RawLine> only_; ///< there is no place for a second one
};

/// Nothing but the stop ends what blocks.
void stop_and_go_on(History& h) {
    h.stop();
    h.field.set_channel({{"SHORTRTY", "999999999"}, {"SHORTTMR", "30"}, {"LONGRTY", "0"}});
    h.field.point_at(h.field.port());
    h.run();
}

void stop_under_load(History& h) {
    h.put(100);
    h.pause_up_to(20'000);
    stop_and_go_on(h);
}

/// Right after the last send, to a reader that has not read it.
void stop_before_slow_reader(History& h) {
    h.relisten({"--read-rate", "500000", "--receive-buffer", "4096"});
    h.put(20, {50'000, 50'000}, ProofKind::kData);
    h.await_text("log", "send 50000 real size", 20);
    h.stop();
    const auto lines = [&](const char* event) { return h.since("journal", std::string("\"event\":\"") + event + '"'); };
    await("the reader, which keeps no order", [&] { return lines("end") == lines("connect"); });
    h.end_listener();
    h.listen();
    h.run();
}

void stop_in_black_hole(History& h) {
    const BlackHole hole;
    h.quiet();
    h.stop();
    h.field.point_at(hole.port());
    h.mark();
    h.worker.emplace(h.field.run_channel());
    h.await_text("log", "begin connect");
    h.put(3);
    stop_and_go_on(h);
}

/// The line is found lost with a message in hand: no retries are left, and no dead-letter queue.
void stop_with_message_in_hand(History& h) {
    const BlackHole hole;
    h.quiet();
    h.field.set_qmgr({{"DEADQ", ""}});
    h.field.set_channel({{"SHORTRTY", "0"}, {"SHORTTMR", "0"}});
    h.stop();
    h.run();
    for (const pid_t watcher : h.watchers()) {
        ::kill(watcher, SIGSTOP);
    }
    h.end_listener();
    h.field.point_at(hole.port());
    h.mark();
    h.put(1, {1'000, 1'000}, ProofKind::kData);
    h.await_text("log", "begin connect");
    h.stop();
    EXPECT_EQ(h.field.depth(), 1U);
    h.field.set_qmgr({{"DEADQ", kDeadQueue}});
    h.field.set_channel({{"SHORTRTY", "999999999"}, {"SHORTTMR", "30"}});
    h.listen();
    h.run();
}

void stop_in_long_pause(History& h) {
    h.quiet();
    h.end_listener();
    h.field.set_channel({{"SHORTRTY", "0"}, {"LONGRTY", "9"}, {"LONGTMR", "900"}});
    h.stop();
    h.mark();
    h.worker.emplace(h.field.run_channel());
    h.await_text("log", "sleep(900)");
    h.stop();
    h.listen();
    h.field.set_channel({{"SHORTRTY", "999999999"}, {"LONGRTY", "0"}});
    h.run();
}

void stop_in_restart(History& h) {
    h.quiet();
    h.end_listener();
    h.await_text("log", "line disconnected [0]");
    h.pause_up_to(30'000);
    h.stop();
    h.listen();
    h.run();
}

/// What stands in the buffers of the line goes with it.
void stop_in_stalled_write(History& h) {
    h.field.set_channel({{"SHORTTMR", "0"}});
    h.relisten({"--stall-after", "100000", "--receive-buffer", "4096"});
    h.put_too_much();
    std::size_t size = 0;
    int same = 0;
    await("a write that stands still", [&] { // seen in that nothing is logged over many looks
        const std::size_t now = h.field.text("log").size();
        same = now == size ? same + 1 : 0;
        size = now;
        return same > 100;
    });
    EXPECT_GT(h.field.depth(), 0U);
    h.stop();
    h.end_listener();
    h.listen();
    h.field.set_channel({{"SHORTTMR", "30"}});
    h.run();
}

void stop_in_handshake(History& h) {
    h.field.set_channel({{"SHORTTMR", "0"}});
    h.relisten({"--no-handshake"});
    h.put(3);
    h.await_text("journal", "\"event\":\"connect\"");
    h.stop();
    h.end_listener();
    h.listen();
    h.field.set_channel({{"SHORTTMR", "30"}});
    h.run();
}

/// With as many bytes of the largest file on their way as the seed says.
void stop_in_file(History& h, const Words& options) {
    h.relisten(options);
    h.put(1, {99'999'999, 99'999'999}, ProofKind::kFile);
    h.await_text("log", "begin send file[");
    h.pause_up_to(30'000);
    h.stop();
    h.end_listener();
    h.listen();
    h.run();
}

void hang_up(History& h) {
    for (int i = 0; i < 3; ++i) {
        for (const char* file : {"log", "journal"}) {
            fs::rename(h.field.home() / file, h.field.home() / (file + (".old." + std::to_string(h.last()))));
            h.forget(file);
        }
        ::kill(h.worker->pid(), SIGHUP);
        ::kill(h.listener->pid(), SIGHUP);
        h.put(50);
        h.await_text("log", "log reopened");
        h.settle();
        EXPECT_GT(h.since("journal", "\"event\":\"message\""), 0U);
    }
    EXPECT_EQ(h.since("journal", "\"event\":\"connect\""), 0U);
}

/// As from the watcher and the alarm clock, at any moment.
void signal_from_outside(History& h) {
    for (int i = 0; i < 3; ++i) {
        h.put(30);
        h.pause_up_to(10'000);
        ::kill(h.worker->pid(), h.below(2) == 0 ? SIGUSR2 : SIGALRM);
        h.settle();
    }
}

} // namespace

std::vector<Fault> faults_of_stops() {
    return {
        {"stop when idle",
         {},
         kAny,
         [](History& h) {
             h.settle();
             stop_and_go_on(h);
         }},
        {"stop under load", {}, kAny, stop_under_load},
        {"stop before a slow reader", {}, kAny, stop_before_slow_reader},
        {"stop while nothing answers", {}, kAny, stop_in_black_hole},
        {"stop with a message in hand", {}, kAny, stop_with_message_in_hand},
        {"stop in a long pause", {}, kAny, stop_in_long_pause},
        {"stop at a lost line", {}, kAny, stop_in_restart},
        {"stop in a stalled write", {.cuts = 1}, kAny, stop_in_stalled_write},
        {"stop in a handshake", {}, kTls, stop_in_handshake},
        {"stop in a file", {}, kAny, [](History& h) { stop_in_file(h, {}); }},
        {"stop in a slow file",
         {},
         kAny,
         [](History& h) {
             stop_in_file(h, {"--read-rate", "80000000"});
         }},
        {"hang-up", {}, kAny, hang_up},
        {"line signals from outside", {}, kAny, signal_from_outside},
    };
}

} // namespace kvr::test
