// SPDX-License-Identifier: MIT
// One SIGTERM in every state in which a channel can block, and at the calls of a message's road: the worker ends as
// stopped, the message in hand is back, and one that was sent is not repeated.
// And SIGHUP, which stops nothing.
#include <array>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "field.h"
#include "injector.h"

namespace kvr::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLargeFile = 99'999'999;

/// A listening socket that takes no more connections: what is sent to it vanishes, as behind a router that drops.
class BlackHole {
  public:
    BlackHole() {
        sockets_.push_back(make());
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* general = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(sockets_[0], general, length), 0);
        EXPECT_EQ(::listen(sockets_[0], 0), 0);
        EXPECT_EQ(::getsockname(sockets_[0], general, &length), 0);
        port_ = ntohs(address.sin_port);
        constexpr std::size_t kEnough = 16;
        constexpr int kAnswerMs = 200;
        for (bool taken = true; taken && sockets_.size() < kEnough;) {
            sockets_.push_back(make());
            (void)::connect(sockets_.back(), general, length);
            pollfd answer{sockets_.back(), POLLOUT, 0};
            taken = ::poll(&answer, 1, kAnswerMs) == 1;
        }
    }
    ~BlackHole() {
        for (const int socket : sockets_) {
            ::close(socket);
        }
    }
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;

    [[nodiscard]] int port() const { return port_; }

  private:
    static int make() { return ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

    std::vector<int> sockets_;
    int port_ = 0;
};

/// Ends the line behind the back of its watcher: the channel finds out with its next message.
void lose_unnoticed(const Child& worker, std::optional<Child>& listener) {
    for (const pid_t watcher : children_of(worker.pid())) {
        ::kill(watcher, SIGSTOP); // the channel kills it all the same
    }
    listener.reset();
}

enum class State {
    kIdle,
    kBlackHole,
    kBlackHoleInHand,
    kLongPause,
    kRestartPause,
    kStalledWrite,
    kSilentHandshake,
    kSilentHandshakeInHand,
    kFastFile,
    kSlowFile
};

struct Case {
    const char* name;
    State state;
    Carrier carrier;
};

class Stops : public ::testing::TestWithParam<Case> {
  protected:
    Stops() : field_(GetParam().carrier) {
        // No send time-out: nothing but the stop ends what blocks.
        field_.set_channel({{"SHORTTMR", "0"}});
    }

    /// A worker that finds its line lost when it has a message in hand: no retries left, and no dead-letter queue.
    Child lose_line_in_hand(const std::function<void()>& move_receiver) {
        listener_.emplace(field_.listen());
        field_.set_qmgr({{"DEADQ", ""}});
        field_.set_channel({{"SHORTRTY", "0"}, {"LONGRTY", "0"}});
        Child worker = run_until("start recv msg");
        lose_unnoticed(worker, listener_);
        move_receiver();
        field_.put(MessageKind::kData, 1, 1000, 1000);
        return worker;
    }

    /// Brings a worker into the state; what it needs lives on in the members.
    Child reach(State state) {
        switch (state) {
        case State::kIdle:
            listener_.emplace(field_.listen());
            return run_until("start recv msg");
        case State::kBlackHole:
            hole_.emplace();
            field_.point_at(hole_->port());
            return run_until("begin connect");
        case State::kBlackHoleInHand: {
            hole_.emplace();
            Child worker = lose_line_in_hand([&] { field_.point_at(hole_->port()); });
            field_.await_log("begin connect", 2);
            return worker;
        }
        case State::kLongPause:
            field_.set_channel({{"CONNAME", "127.0.0.1(1)"}, {"SHORTRTY", "0"}, {"LONGRTY", "9"}, {"LONGTMR", "900"}});
            return run_until("sleep(900)");
        case State::kRestartPause: {
            listener_.emplace(field_.listen());
            Child worker = run_until("start recv msg");
            listener_.reset();
            field_.await_log("line disconnected [0]");
            return worker;
        }
        case State::kStalledWrite: {
            field_.put_too_much();
            Child worker = run_before_silent_peer({.carrier = GetParam().carrier, .receive_buffer = 4096});
            await_no_progress();
            return worker;
        }
        case State::kSilentHandshake:
            return run_before_silent_peer({.carrier = GetParam().carrier, .handshake = false});
        case State::kSilentHandshakeInHand: {
            Child worker = lose_line_in_hand([&] { be_silent({.carrier = GetParam().carrier, .handshake = false}); });
            EXPECT_TRUE(release_.wait());
            return worker;
        }
        case State::kFastFile:
        case State::kSlowFile: {
            listener_.emplace(field_.listen(state == State::kSlowFile
                                                ? std::vector<std::string>{"--read-rate", "20000000"}
                                                : std::vector<std::string>{}));
            field_.put(MessageKind::kFile, 1, kLargeFile, kLargeFile);
            Child worker = field_.run_channel();
            await("the file on its way", [&] { return incoming() > 100'000; });
            return worker;
        }
        }
        throw std::logic_error("no such state");
    }

    /// The peer has taken the connection, and something has come over it.
    Child run_before_silent_peer(const PeerOptions& options) {
        be_silent(options);
        Child worker = field_.run_channel();
        EXPECT_TRUE(release_.wait());
        return worker;
    }

    void be_silent(const PeerOptions& options) {
        silent_.emplace(options, [this](PeerConnection& to) {
            EXPECT_TRUE(wait_until([&] { return to.pending() > 0; }));
            release_.set();
            (void)end_.wait();
        });
        field_.point_at(silent_->port());
    }

    Child run_until(const std::string& line) {
        Child worker = field_.run_channel();
        field_.await_log(line);
        return worker;
    }

    /// Bytes of the file that the listener is receiving.
    std::uintmax_t incoming() {
        std::uintmax_t bytes = 0;
        std::error_code gone;
        for (const auto& file : std::filesystem::recursive_directory_iterator(field_.home() / "spool", gone)) {
            const std::uintmax_t size = file.is_regular_file(gone) ? file.file_size(gone) : 0;
            bytes += gone ? 0 : size;
        }
        return bytes;
    }

    /// Until the worker has been writing without logging for a while: it logs each message.
    void await_no_progress() {
        constexpr auto kStill = std::chrono::milliseconds(300);
        std::size_t size = 0;
        auto since = Clock::now();
        await("a write that stalls", [&] {
            const std::size_t now = field_.logged("rcv len[");
            if (now != size || now == 0) {
                size = now;
                since = Clock::now();
            }
            return Clock::now() - since > kStill;
        });
    }

    Field field_;
    Event release_;
    Event end_;
    std::optional<Child> listener_;
    std::optional<BlackHole> hole_;
    std::optional<Peer> silent_;
};

INSTANTIATE_TEST_SUITE_P(
    States, Stops,
    ::testing::Values(Case{"Idle", State::kIdle, Carrier::kPlain}, Case{"IdleTls", State::kIdle, Carrier::kTls13},
                      Case{"BlackHole", State::kBlackHole, Carrier::kPlain},
                      Case{"BlackHoleInHand", State::kBlackHoleInHand, Carrier::kPlain},
                      Case{"LongPause", State::kLongPause, Carrier::kPlain},
                      Case{"RestartPause", State::kRestartPause, Carrier::kPlain},
                      Case{"StalledWrite", State::kStalledWrite, Carrier::kPlain},
                      Case{"StalledWriteTls", State::kStalledWrite, Carrier::kTls13},
                      Case{"SilentHandshake", State::kSilentHandshake, Carrier::kTls13},
                      Case{"SilentHandshakeInHand", State::kSilentHandshakeInHand, Carrier::kTls13},
                      Case{"FastFile", State::kFastFile, Carrier::kPlain},
                      Case{"FastFileTls", State::kFastFile, Carrier::kTls13},
                      Case{"SlowFile", State::kSlowFile, Carrier::kPlain},
                      Case{"SlowFileTls", State::kSlowFile, Carrier::kTls12}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_P(Stops, EndsAsStoppedWithTheMessageBackOnItsQueue) {
    const State state = GetParam().state;
    Child worker = reach(state);
    const pid_t pid = worker.pid();
    const std::vector<pid_t> watchers = children_of(pid);
    const auto asked = Clock::now();
    ::kill(pid, SIGTERM); // once
    EXPECT_EQ(worker.result(), 0);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - asked).count();
    RecordProperty("milliseconds", static_cast<int>(took));
    EXPECT_EQ(field_.status(), "STOPED");
    EXPECT_EQ(field_.status("PID"), "-1");
    EXPECT_TRUE(processes_with((field_.home() / "log").native()).empty()) << "a watcher lives on";

    // What the silent peer had taken by then is in the buffers of a line that broke; nothing else is.
    const bool broke = state == State::kStalledWrite;
    end_.set();
    silent_.reset();
    if (listener_) {
        await("the listener to read to the end",
              [&] { return field_.journalled("end") == field_.journalled("connect"); });
    }
    listener_.reset();
    const Verdict stopped = field_.judge(broke ? 1 : 0);
    EXPECT_EQ(stopped.held + stopped.dead, 0U);
    if (broke || state == State::kSlowFile || state == State::kBlackHoleInHand ||
        state == State::kSilentHandshakeInHand) {
        EXPECT_GE(stopped.waiting, 1U) << "the message in hand";
    }

    field_.put(MessageKind::kData, 3, 0, 1000);
    Child listener = field_.listen();
    field_.set_channel({{"SHORTRTY", "60"}, {"SHORTTMR", "1"}});
    Child again = field_.run_channel();
    field_.await_drained();
    field_.await_arrived(field_.ledger().size() - stopped.lost);
    EXPECT_EQ(again.result_under(SIGTERM), 0);
    const Verdict verdict = field_.judge(broke ? 1 : 0);
    EXPECT_EQ(verdict.delivered + verdict.lost, field_.ledger().size());
    EXPECT_EQ(verdict.lost, stopped.lost);
}

class StopsAt : public ::testing::TestWithParam<Carrier> {};

INSTANTIATE_TEST_SUITE_P(Carriers, StopsAt, kPlainAndTls, name_of_carrier);

// The road begins with a new line: nothing but the stop makes the message fail, and nothing keeps one that failed.
TEST_P(StopsAt, EachCallOfAMessageOnANewLine) {
    Field field(GetParam());
    field.set_qmgr({{"DEADQ", ""}});
    field.set_channel({{"SHORTRTY", "0"}, {"SHORTTMR", "0"}});
    Injector injector(field);
    std::optional<Child> listener(field.listen());
    int stops = 0;
    for (const inject::Action action : {inject::Action::kInterrupt, inject::Action::kBefore}) {
        const int kinds = action == inject::Action::kBefore && rounds(0) == 0 ? inject::kHost : inject::kAnyKind;
        for (int target = 1; !HasFailure(); target = injector.control().fired + 1) {
            Child worker = field.run_channel(injector.environment());
            field.await_status("RUNING");
            field.await_drained();
            field.await_arrived(field.ledger().size());
            lose_unnoticed(worker, listener);
            listener.emplace(field.listen());
            injector.arm({inject::Trigger::kMessage, action, kinds, target, SIGTERM, 0});
            field.put(MessageKind::kFile, 1, 1000, 1000);
            (void)injector.done(worker, "a stop");
            const int fired = injector.control().fired;
            SCOPED_TRACE("call " + std::to_string(fired) + " " + injector.control().name);
            EXPECT_EQ(worker.result_under(SIGTERM), 0);
            EXPECT_EQ(field.status(), "STOPED");
            stops += fired > 0 ? 1 : 0;
            if (fired == 0) {
                break;
            }
        }
    }
    RecordProperty("stops at calls", stops);
    Child worker = field.run_channel();
    field.await_status("RUNING");
    field.finish(worker);
}

// At a moment when the get waits, and at moments of load.
TEST(HangUp, BeginsANewLogAndEndsNothing) {
    Field field;
    const std::filesystem::path log = field.home() / "log";
    Child listener = field.listen();
    Child worker = field.run_channel();
    field.await_status("RUNING");
    for (int i = 0; i < 20; ++i) {
        std::filesystem::rename(log, field.home() / ("log." + std::to_string(i)));
        ::kill(worker.pid(), SIGHUP);
        await("a new log", [&] { return field.logged("log reopened") == 1; });
        field.put(MessageKind::kData, 50, 0, 1000);
    }
    field.finish(worker);
    EXPECT_EQ(field.logged("stop requested"), 1U);
    EXPECT_EQ(field.journalled("connect"), 1U);
}

} // namespace
} // namespace kvr::test
