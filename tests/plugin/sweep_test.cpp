// SPDX-License-Identifier: MIT
// Every call that the plug-in, the TCP client and the host's utilities make on a road of the channel is once the one to
// fail, with each of its plausible errors, and once the one that a signal comes before, after or instead of. One judge
// says what must hold afterwards, whatever it was.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "channel_run.h"
#include "kavutil/stop_point.h"

namespace kvr::test {
namespace {

enum class Road { kStart, kMessage, kNewLine, kDeadLetter, kLostLine, kHeartbeat, kStop };
constexpr const char* kRoadNames[] = {"Start", "Message", "NewLine", "DeadLetter", "LostLine", "Heartbeat", "Stop"};

/// A stop that was asked for this often is overdue.
constexpr int kOverdue = 10;
constexpr int kMostErrors = 5;

int stop_requests = 0;

class Sweep : public ChannelTest, public testing::WithParamInterface<std::tuple<Road, Carrier>> {
  protected:
    Sweep();

    /// One run with one attack. False when the road has no such call any more.
    bool strike(const Attack& attack);

  private:
    void script(Attack& attack);
    GetStep hand_over(int number, bool opens = false);
    void judge(const Attack& attack, const Result& r) const;
    void judge_end(const Attack& attack, const Result& r) const;
    int judge_frames(const Result& r, std::vector<int>& sent) const;

    Road road_ = std::get<0>(GetParam());
    std::vector<Message> messages_;
    std::vector<std::string> wire_; ///< each message as it has to arrive; empty: never
    bool lost_ = false;             ///< the next look at the line finds it closed
};

Sweep::Sweep() {
    chl()["SHORTRTY"] = "1";
    chl()["HBINT"] = "0";
    if (receiver_.carrier = std::get<1>(GetParam()); receiver_.carrier != Carrier::kPlain) {
        use_tls(receiver_.carrier);
        qmgr()["CERTFILE"] = tls_material().client.cert_file;
        qmgr()["KEYFILE"] = tls_material().client.key_file;
    }
    const std::string long_file(12000, 'l');
    Message second = message(file("own", "content"));
    second.md.cMsgStoreType = KVR_STORE_FILE;
    second.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    second.files = {file("long", long_file)};
    std::string second_wire = header('4', 272 + 9 + 100) + plain_block('2', 4) + padded("own", 9) +
                              attachment_block({"long"}) + file_frame(long_file) + file_frame("content");
    if (road_ == Road::kDeadLetter) {
        second = raw("no header");
        second_wire.clear();
    }
    messages_ = {message("first"), second, message("third")};
    wire_ = {data_frame("first"), second_wire, data_frame("third")};
}

/// The get on a line that is down, which nothing but an alarm ends: the first comes before it waits.
int wait_on_dead_line() {
    for (int alarms = 0; alarms < 2; ++alarms) {
        if (std::exchange(host().alarm, 0) != 1) {
            trace(kFault, "the get waits for ever on a dead line");
        }
        raise(SIGALRM);
    }
    errno = EINTR;
    return -4;
}

GetStep Sweep::hand_over(int number, bool opens) {
    return [=, this, tickets = !cues_.empty()](T_KAVRO_MD* md, char* buf, int* len) {
        if (number == 0 && tickets) {
            wait_for("tickets sent");
        }
        char byte = 0;
        if (number == 2 && recv(host().sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
            host().get.push_front(hand_over(number));
            return wait_on_dead_line();
        }
        lost_ = opens && road_ == Road::kNewLine;
        if (opens) {
            open_window();
        }
        trace(kNote, "in hand %d", number);
        return deliver(messages_[static_cast<size_t>(number)])(md, buf, len);
    };
}

/// As a host does when a stop was asked for: from inside its operations, after an event that failed, at an exit.
void end_stopped(StopPlace) {
    static bool ended = false;
    if (std::exchange(ended, true)) {
        return;
    }
    stop_set_hook(nullptr);
    for (const int sig : {SIGALRM, SIGUSR2, SIGTERM}) {
        signal(sig, SIG_IGN);
    }
    event(4);
    _exit(0);
}

void end_if_stopped() {
    if (stop_pending()) {
        end_stopped({});
    }
}

void live() {
    if (event(1) >= 0) {
        event(2);
    }
    end_if_stopped();
}

void Sweep::script(Attack& attack) {
    const auto signalled = [&attack](int sig) -> GetStep {
        attack.from_handler = true;
        return interrupted(sig);
    };
    if (receiver_.carrier == Carrier::kTls13 && road_ != Road::kStart) {
        // On a line that the channel has closed they would make a reset, which takes back what was sent.
        receiver_.tickets = road_ == Road::kNewLine ? 0 : -1;
        cues_ = {{"KVR_QueMsgGet()", [](PeerConnection& connection) {
                      connection.send_tickets(2);
                      trace(kNote, "tickets sent");
                  }}};
    }
    auto& get = host().get;
    get = {hand_over(0)};
    switch (road_) {
    case Road::kLostLine:
        get.push_back(signalled(SIGUSR2));
        break;
    case Road::kHeartbeat:
        get.push_back(signalled(SIGALRM));
        break;
    case Road::kStop:
        get.push_back([](T_KAVRO_MD*, char*, int*) {
            stop_request();
            open_window();
            return -4;
        });
        break;
    default:
        get.push_back(hand_over(1, road_ != Road::kStart));
    }
    get.push_back(hand_over(2));
    get.push_back(interrupted(SIGALRM));
}

bool Sweep::strike(const Attack& asked) {
    Attack attack = asked;
    script(attack);
    if (road_ == Road::kNewLine) {
        host().hooks["sockCanRead"] = [this](const Call&) {
            return std::exchange(lost_, false) ? std::optional(1) : std::nullopt;
        };
    }
    int before = 0;
    host().get.push_back(finally([&before] {
        event(4);
        siginfo_t child{};
        const bool children = waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0;
        // The connection and an end of its watcher's pipe stay for a next start.
        trace(kNote, "over, %d descriptors more, %d TLS objects, %d children", open_descriptors() - before,
              tls_objects(), children ? 1 : 0);
        _exit(0);
    }));
    stop_requests = attack.action == Action::kBefore ? 1 : kOverdue;
    plan(attack);
    const Result r = run([&] {
        dup2(memfd_create("decoy", MFD_CLOEXEC), 0); // not the channel's, whatever number 0 means in its record
        load();
        before = open_descriptors();
        for (const int sig : {SIGALRM, SIGUSR2}) {
            signal(sig, SIG_IGN); // until the channel has its handlers
        }
        signal(SIGTERM, [](int) {
            for (int i = 0; i < stop_requests; ++i) {
                stop_request();
            }
        });
        stop_set_hook(end_stopped);
        atexit(end_if_stopped);
        if (road_ == Road::kStart) {
            open_window();
        }
        live();
        close_window();
        event(4);
        live();
    });
    judge(attack, r);
    return attacked().fired != 0 && !HasFailure();
}

/// What the receiver got on each connection: whole frames, in order, and a cut one only at the end.
int Sweep::judge_frames(const Result& r, std::vector<int>& sent) const {
    int faults = 0;
    size_t latest = 0;
    for (const std::string& conn : r.conns) {
        std::string_view rest = conn;
        const auto takes = [&rest](const std::string& whole) {
            const bool is = !whole.empty() && rest.starts_with(whole);
            rest.remove_prefix(is ? whole.size() : 0);
            return is;
        };
        std::string cut = bind_frame("CH1");
        for (bool more = takes(cut); more;) {
            more = takes(heartbeat_frame());
            for (size_t i = 0; i < wire_.size(); ++i) {
                if (takes(wire_[i])) {
                    faults += i < latest ? 1 : 0;
                    latest = i;
                    ++sent[i];
                    more = true;
                }
            }
        }
        bool begins = rest.empty() || cut.starts_with(rest) || heartbeat_frame().starts_with(rest);
        for (const std::string& whole : wire_) {
            begins = begins || whole.starts_with(rest);
        }
        faults += begins ? 0 : 1;
    }
    return faults;
}

void Sweep::judge(const Attack& attack, const Result& r) const {
    const Attacked& done = attacked();
    std::vector<int> outcomes(messages_.size(), 0); ///< sent whole, laid aside, or back on the queue
    EXPECT_EQ(judge_frames(r, outcomes), 0) << "frames damaged or out of order";
    EXPECT_STREQ(done.finding, "");
    // A message is the channel's from the get that delivers it to the next get, which uses it up.
    std::vector<int> expected(messages_.size(), 0);
    size_t in_hand = messages_.size();
    // A get that fails after a line signal counts as interrupted.
    bool told = done.told == nullptr || done.error == EINTR || done.error == EAGAIN ||
                (done.call == std::string("KVR_QueMsgGet") && r.count("3 line disconnected") > 0);
    for (const Entry& e : r.trace) {
        if (e.pid != r.pid) {
            continue;
        }
        // A host keeps what its dead-letter queue did not take.
        const bool aside = e.text.starts_with("KVR_QueMsgPut(") ||
                           (e.text == "KVR_QueOpen(DLQ)" && done.error != 0 && done.call == std::string("KVR_QueOpen"));
        if (e.text.starts_with("in hand ")) {
            in_hand = std::stoul(e.text.substr(8));
            expected[in_hand] = 1;
        } else if (e.text == "KVR_QueMsgGet()") {
            in_hand = messages_.size();
        } else if (aside) {
            EXPECT_TRUE(wire_[in_hand].empty() || (road_ == Road::kNewLine && attack.action == Action::kFail))
                << "a message that can be sent was laid aside";
            ++outcomes[in_hand];
        } else if (e.kind == kLog || e.kind == kNetLog) {
            told = told || e.text.find(done.told) != std::string::npos;
        }
    }
    if (in_hand < messages_.size()) {
        ++outcomes[in_hand];
    }
    EXPECT_EQ(outcomes, expected) << "a message lost or handled twice";
    EXPECT_TRUE(told) << "no line says '" << done.told << "'";
    if (attack.signal == SIGALRM) {
        EXPECT_EQ(r.conns.size(), road_ == Road::kNewLine || road_ == Road::kLostLine ? 2U : 1U)
            << "an alarm costs none";
    }
    judge_end(attack, r);
    if (HasFailure()) {
        ADD_FAILURE() << "action " << static_cast<int>(attack.action) << " signal " << attack.signal << " at call "
                      << done.fired << " " << done.call << " error " << done.error << "\n"
                      << r.dump();
    }
}

void Sweep::judge_end(const Attack& attack, const Result& r) const {
    const bool stopped = road_ == Road::kStop || (attack.signal == SIGTERM && attacked().fired != 0);
    if (r.status == 1) {
        EXPECT_EQ(attack.action, Action::kFail);
        EXPECT_GT(r.count("1 RecvIpcMsg error[") + r.count("1 SndrNetInit error["), 0);
    } else if (stopped) {
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.count("STATUS=STOPED"), 1);
    } else {
        EXPECT_EQ(r.status, 0);
        // A line that a message finds there may do without its watcher.
        const bool unwatched = road_ == Road::kNewLine && r.count("1 fork error[") > 0;
        EXPECT_EQ(r.count(std::string("over, ") + (unwatched ? "1" : "2") + " descriptors more, " +
                          (receiver_.carrier == Carrier::kPlain ? "0" : "2") + " TLS objects, 0 children"),
                  1);
    }
}

TEST_P(Sweep, EachCallFailsAndMeetsEachSignalOnce) {
    // Without more time the attacks take turns at the calls; inside TLS a run costs ten times as much.
    const bool plain = std::get<1>(GetParam()) == Carrier::kPlain;
#ifdef __SANITIZE_ADDRESS__
    const int first = 3;
    const int others = plain ? 6 : 24;
#else
    const int first = 1;
    const int others = plain ? 2 : 8;
#endif
    std::vector<Attack> attacks;
    for (int error = 0; error < kMostErrors; ++error) {
        attacks.push_back({.action = Action::kFail, .error = error});
    }
    for (const int sig : {SIGUSR2, SIGALRM, SIGTERM}) {
        for (const Action action : {Action::kBefore, Action::kAfter, Action::kInsteadOf}) {
            attacks.push_back({.action = action, .signal = sig});
        }
    }
    int struck = 0;
    for (size_t i = 0; i < attacks.size() && !HasFailure(); ++i) {
        Attack attack = attacks[i];
        const int sample = i == 0 ? first : others;
        const int stride = getenv("KVR_BATTERY_ROUNDS") != nullptr ? 1 : sample;
        for (attack.target = 1 + static_cast<int>(i) % stride; strike(attack);
             attack.target = attacked().fired + stride) {
            ++struck;
        }
    }
    RecordProperty("calls struck", struck);
}

INSTANTIATE_TEST_SUITE_P(Roads, Sweep,
                         testing::Combine(testing::Values(Road::kStart, Road::kMessage, Road::kNewLine,
                                                          Road::kDeadLetter, Road::kLostLine, Road::kHeartbeat,
                                                          Road::kStop),
                                          testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13)),
                         [](const auto& tested) {
                             return kRoadNames[static_cast<int>(std::get<0>(tested.param))] +
                                    std::string(carrier_name(std::get<1>(tested.param)));
                         });

} // namespace
} // namespace kvr::test
