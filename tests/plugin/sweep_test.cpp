// SPDX-License-Identifier: MIT
// Every call that the plug-in, the TCP client and the host's utilities make on a road of the channel is once the one to
// fail, with each of its plausible errors, and once the one that a signal comes before, after or instead of. One judge
// says what must hold afterwards, whatever it was.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>

#include "channel_run.h"
#include "kavutil/stop_point.h"

namespace kvr::test {
namespace {

/// A stop that was asked for this often is overdue.
constexpr int kOverdue = 10;

int descriptors_before = 0;

void note_what_is_left(const char* when) {
    siginfo_t child{};
    const bool children = waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0;
    trace("%s, %d descriptors more, %d TLS objects, %d children", when, open_descriptors() - descriptors_before,
          tls_objects, children ? 1 : 0);
}

/// As a host does when a stop was asked for: from inside its operations, after an event that failed, at an exit.
void end_stopped(StopPlace) {
    stop_set_hook(nullptr);
    for (const int sig : {SIGALRM, SIGUSR2, SIGTERM}) {
        signal(sig, SIG_IGN);
    }
    event(4);
    _exit(0);
}

void live() {
    if (event(1) >= 0 && event(2) < 0) {
        note_what_is_left("start failed");
    }
    stop_point({});
}

class Sweep : public ChannelTest, public testing::WithParamInterface<std::tuple<std::string, Carrier>> {
  protected:
    Sweep() {
        chl()["SHORTRTY"] = "1";
        chl()["HBINT"] = "0";
        if (carrier_ != Carrier::kPlain) {
            chl()["SSLCAUTH"] = "ENABLE";
            qmgr()["CAFILE"] = tls_material().ca_file;
            qmgr()["CERTFILE"] = tls_material().client.cert_file;
            qmgr()["KEYFILE"] = tls_material().client.key_file;
            qmgr()["KEYPASS"] = kKeyPass;
            receiver_.carrier = carrier_;
            receiver_.ask_client_cert = true;
        }
        const std::string long_file(12000, 'l');
        Message second = message(file("own", "content"));
        second.md.cMsgStoreType = KVR_STORE_FILE;
        second.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
        second.files = {file("long", long_file)};
        messages_ = {message("first"), road_ == "DeadLetter" ? raw("no header") : second, message("third")};
        const std::string bytes = header('4', 272 + 9 + 100) + plain_block('2', 4) + padded("own", 9) +
                                  attachment_block({"long"}) + file_frame(long_file) + file_frame("content");
        wire_ = {data_frame("first"), road_ == "DeadLetter" ? "" : bytes, data_frame("third")};
    }

    /// One run with one attack. False when the road has no such call any more.
    bool strike(const Attack& asked) {
        script();
        attack = asked;
        const Result r = run([&] {
            load();
            descriptors_before = open_descriptors();
            for (const int sig : {SIGALRM, SIGUSR2}) {
                signal(sig, SIG_IGN); // until the channel has its handlers
            }
            signal(SIGTERM, [](int) {
                for (int requests = attack.action == Attack::kBefore ? 1 : kOverdue; requests > 0; --requests) {
                    stop_request();
                }
            });
            stop_set_hook(end_stopped);
            atexit([] { stop_point({}); });
            attack.open = road_ == "Start";
            live();
            attack.open = false;
            event(4);
            live();
        });
        judge(r);
        if (HasFailure()) {
            ADD_FAILURE() << "action " << attack.action << " signal " << attack.signal << " at call " << attack.fired
                          << " " << (attack.row != nullptr ? attack.row->name : "") << " error " << attack.failure
                          << "\n"
                          << r.dump();
        }
        return attack.fired != 0 && !HasFailure();
    }

    const std::string road_ = std::get<0>(GetParam());
    const Carrier carrier_ = std::get<1>(GetParam());

  private:
    GetStep hand_over(size_t number) {
        return [=, this](T_KAVRO_MD* md, char* buf, int* len) {
            if (number == 0 && sends_tickets_) {
                wait_for("tickets sent");
            }
            pollfd line{host().sock, POLLRDHUP, 0};
            if (number == 2 && poll(&line, 1, 0) == 1 && (line.revents & (POLLRDHUP | POLLHUP)) != 0) {
                // On a line that is down nothing but an alarm ends the get: the first comes before it waits.
                for (int alarms = 0; alarms < 2; ++alarms) {
                    trace(std::exchange(host().alarm, 0) == 1 ? "alarm on a dead line" : "fault: none on a dead line");
                    raise(SIGALRM);
                }
                host().get.push_front(hand_over(number));
                return -4;
            }
            if (number == 1 && road_ != "Start") {
                lost_ = road_ == "NewLine";
                attack.open = true;
            }
            trace("in hand %zu", number);
            return deliver(messages_[number])(md, buf, len);
        };
    }

    /// The wait in which the road begins.
    int wait() const {
        attack.open = true;
        if (road_ == "Stop") {
            stop_request();
        } else {
            raise(road_ == "LostLine" ? SIGUSR2 : SIGALRM);
        }
        errno = EINTR;
        return -4;
    }

    void script() {
        // On a line that the channel has closed they would make a reset, which takes back what was sent.
        receiver_.tickets = road_ == "NewLine" ? 0 : 2;
        if (sends_tickets_) {
            cue_ = {"KVR_QueMsgGet()", [](PeerConnection& connection) {
                        connection.send_tickets(2);
                        trace("tickets sent");
                    }};
        }
        host().hooks["sockCanRead"] = [this](long) {
            return std::exchange(lost_, false) ? std::optional(1) : std::nullopt;
        };
        const bool waits = road_ == "LostLine" || road_ == "Heartbeat" || road_ == "Stop";
        const GetStep second = [this](T_KAVRO_MD*, char*, int*) { return wait(); };
        host().get = {hand_over(0), waits ? second : hand_over(1), hand_over(2), interrupted(SIGALRM), finally([] {
                          event(4);
                          // The connection and an end of its watcher's pipe stay for a next start.
                          note_what_is_left("over");
                      })};
    }

    /// How often each message arrived. On each connection there are whole frames, in order, and a cut one only at the
    /// end.
    std::vector<int> judge_frames(const Result& r) const {
        std::vector<int> arrived(wire_.size(), 0);
        size_t latest = 0;
        for (std::string_view rest : r.conns) {
            const auto takes = [&rest](const std::string& frame) {
                const bool whole = !frame.empty() && rest.starts_with(frame);
                rest.remove_prefix(whole ? frame.size() : 0);
                return whole;
            };
            Lines cut = {kBind};
            if (takes(cut[0])) {
                cut = wire_;
                cut.push_back(heartbeat_frame());
            }
            for (size_t i = latest; i < wire_.size();) {
                if (takes(wire_[i])) {
                    latest = i;
                    ++arrived[i];
                } else if (!takes(heartbeat_frame())) {
                    ++i;
                }
            }
            EXPECT_TRUE(std::ranges::any_of(cut, [&rest](const std::string& frame) { return frame.starts_with(rest); }))
                << "a frame damaged or out of order";
        }
        return arrived;
    }

    void judge(const Result& r) const {
        const std::string failed = attack.failure != 0 ? attack.row->name : "";
        std::vector<int> outcomes = judge_frames(r); // sent whole, laid aside, or back on the queue
        // A message is the channel's from the get that delivers it to the next get, which uses it up.
        std::vector<int> expected(messages_.size(), 0);
        size_t in_hand = messages_.size();
        for (const auto& [pid, text] : r.trace) {
            // A host keeps what its dead-letter queue did not take.
            if (text.starts_with("KVR_QueMsgPut(") || (text == "KVR_QueOpen(DLQ)" && failed == "KVR_QueOpen")) {
                EXPECT_TRUE(wire_[in_hand].empty() || (road_ == "NewLine" && attack.action == Attack::kFail))
                    << "a message that can be sent was laid aside";
                ++outcomes[in_hand];
            } else if (text.starts_with("in hand ")) {
                in_hand = std::stoul(text.substr(8));
                expected[in_hand] = 1;
            } else if (text == "KVR_QueMsgGet()") {
                in_hand = messages_.size();
            }
        }
        if (in_hand < messages_.size()) {
            ++outcomes[in_hand];
        }
        EXPECT_EQ(outcomes, expected) << "a message lost or handled twice";
        // A get that fails after a line signal counts as interrupted.
        const bool passes = attack.failure == 0 || attack.failure == EINTR || attack.failure == EAGAIN ||
                            (failed == "KVR_QueMsgGet" && r.count("3 line disconnected") > 0);
        if (!passes && attack.row->told != nullptr) {
            EXPECT_GT(r.count(attack.row->told), 0) << "no line says '" << attack.row->told << "'";
        }
        // What has to be repeated after half a call, or after a signal of somebody else's, costs no line either.
        const bool repeated = carrier_ == Carrier::kPlain && attack.action == Attack::kFail && attack.row != nullptr &&
                              attack.row->again && (attack.failure == 0 || attack.failure == EINTR);
        if (attack.signal == SIGALRM || repeated) {
            EXPECT_EQ(r.conns.size(), road_ == "NewLine" || road_ == "LostLine" ? 2U : 1U) << "a line more than needed";
        }
        judge_end(r);
    }

    void judge_end(const Result& r) const {
        const bool stopped = road_ == "Stop" || (attack.signal == SIGTERM && attack.fired != 0);
        const std::string objects = carrier_ == Carrier::kPlain ? "0" : "2";
        if (r.status == 1) {
            EXPECT_EQ(attack.action, Attack::kFail);
            EXPECT_GT(r.count("1 RecvIpcMsg error[") + r.count("1 SndrNetInit error["), 0);
            return;
        }
        EXPECT_EQ(r.status, stopped ? 0 : kScriptOver);
        if (stopped) {
            EXPECT_EQ(r.count("STATUS=STOPED"), 1);
        } else {
            // A line that a message finds there may do without its watcher.
            const std::string descriptors = road_ == "NewLine" && r.count("1 fork error[") > 0 ? "1" : "2";
            EXPECT_EQ(r.count("over, " + descriptors + " descriptors more, " + objects + " TLS objects, 0 children"),
                      1);
        }
        if (r.count("1 Connect2Lsr error[") + r.count("1 BindChl error[") > 0) {
            EXPECT_EQ(r.count("start failed, 0 descriptors more, 0 TLS objects, 0 children"), r.count("start failed"));
        }
    }

    const bool sends_tickets_ = carrier_ == Carrier::kTls13 && road_ != "Start";
    std::vector<Message> messages_;
    Lines wire_;        ///< each message as it has to arrive; empty: never
    bool lost_ = false; ///< the next look at the line finds it closed
};

TEST_P(Sweep, EachCallFailsAndMeetsEachSignalOnce) {
    std::vector<Attack> attacks;
    for (int error = 0; error < 5; ++error) {
        attacks.push_back({.action = Attack::kFail, .error = error});
    }
    for (const int sig : {SIGUSR2, SIGALRM, SIGTERM}) {
        for (const Attack::Action action : {Attack::kBefore, Attack::kAfter, Attack::kInsteadOf}) {
            attacks.push_back({.action = action, .signal = sig});
        }
    }
#ifdef __SANITIZE_ADDRESS__
    const int slow = 3;
#else
    const int slow = 1;
#endif
    // Without more time the attacks take turns at the calls; inside TLS a run costs ten times as much.
    const int others = carrier_ == Carrier::kPlain ? 2 : 8;
    for (size_t i = 0; i < attacks.size() && !HasFailure(); ++i) {
        const int stride = getenv("KVR_BATTERY_ROUNDS") != nullptr ? 1 : slow * (i == 0 ? 1 : others);
        Attack& asked = attacks[i];
        for (asked.target = 1 + static_cast<int>(i) % stride; strike(asked); asked.target = attack.fired + stride) {
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Roads, Sweep,
    testing::Combine(testing::Values("Start", "Message", "NewLine", "DeadLetter", "LostLine", "Heartbeat", "Stop"),
                     testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13)),
    [](const auto& tested) { return std::get<0>(tested.param) + carrier_name(std::get<1>(tested.param)); });

} // namespace
} // namespace kvr::test
