// SPDX-License-Identifier: MIT
// Every host operation and every system call of the channel's roads fails once, each in turn, with each of its
// plausible errors. Whatever fails: the channel goes on, or ends with status 1 and works when it is started again; the
// log says what failed; nothing hangs and nothing is lost.
#include <map>
#include <optional>
#include <set>

#include "injector.h"

namespace kvr::test {
namespace {

using inject::Action;
using inject::Attack;
using inject::Trigger;

constexpr int kMostErrors = 4;
/// Of the calls of a road every one, or a sample where each costs a process.
constexpr int kSample = 6;

enum class Road { kMessage, kReconnect, kHeartbeat, kDeadLetter, kStart, kStop };

struct RoadCase {
    const char* name;
    Road road;
    Trigger trigger;
    Carrier carrier;
    bool process_each; ///< each failure takes a process of its own
};

constexpr RoadCase kRoads[] = {
    {"Message", Road::kMessage, Trigger::kMessage, Carrier::kPlain, false},
    {"MessageTls", Road::kMessage, Trigger::kMessage, Carrier::kTls13, false},
    {"Reconnect", Road::kReconnect, Trigger::kHandler, Carrier::kPlain, false},
    {"ReconnectTls", Road::kReconnect, Trigger::kHandler, Carrier::kTls13, false},
    {"Heartbeat", Road::kHeartbeat, Trigger::kHandler, Carrier::kPlain, false},
    {"HeartbeatTls", Road::kHeartbeat, Trigger::kHandler, Carrier::kTls13, false},
    {"DeadLetter", Road::kDeadLetter, Trigger::kMessage, Carrier::kPlain, false},
    {"Start", Road::kStart, Trigger::kStart, Carrier::kPlain, true},
    {"StartTls", Road::kStart, Trigger::kStart, Carrier::kTls13, true},
    {"Stop", Road::kStop, Trigger::kStop, Carrier::kPlain, true},
};

/// What the log must say when a call fails for good. EINTR and EAGAIN are mostly waited out, so they are left to the
/// other checks; so are calls whose failure costs nothing.
struct Line {
    const char* call;
    const char* text;
    bool message_only = false; ///< elsewhere it is an interrupted get, or OpenSSL that reads its files
};

constexpr Line kLines[] = {
    {"KVR_InitQmgrCtx", "KVR_InitQmgrCtx[-110]"},
    {"KVR_QueMsgGet", "RecvIpcMsg error[-110]", true},
    {"KVR_QueOpen", "KVR_QueOpen["},
    {"KVR_QueMsgPut", "KVR_QueMsgPut["},
    {"KVR_QueClose", "KVR_QueClose["},
    {"KVR_ObjSetAttrV", "KVR_ObjSetAttrV[CHS][BATTERY] return[-110]"},
    {"KVR_ObjSetAttr", "KVR_ObjSetAttr[CHS][BATTERY] return[-110]"},
    {"KVR_ObjGetAttrV", "return[-110]"},
    {"KVR_ObjGetAttr", "get chl[BATTERY] error[-110]"},
    {"KVR_ObjAdd", "return[-110]"},
    {"sockGetHostIp", "sockGetHostIp["},
    {"streamWriteNByte", " write["},
    {"send", " write["},
    {"socket", "socket error["},
    {"connect", "connect["},
    {"pipe2", "pipe error["},
    {"fork", "fork error["},
    {"waitpid", "Waitpid error["},
    {"procSndSig2Proc", "procSndSig2Proc f_iMonPid["},
    {"fdopen", "open [", true},
    {"fseek", "fseek [", true},
    {"ftell", "tell [", true},
    {"fread", "changed: [", true},
    {"ferror", "tell [", true},
    {"SSL_new", "SSL_new error["},
    {"SSL_connect", "SSL_connect["},
    {"SSL_write", " write["},
    {"SSL_CTX_new", "netTcpSSLInitCtx["},
    {"SSL_get0_peer_certificate", "netTcpSSLCheckCert error["},
};

class Failures : public ::testing::TestWithParam<RoadCase> {
  protected:
    Failures() { field_.set_channel({{"SHORTTMR", "0"}, {"SHORTRTY", "5"}}); }

    /// One failure. False when the road has no such call any more.
    bool fail(int target, int error);
    void settle();
    [[nodiscard]] int next(int target, int step) const {
        const int fired = injector_.control().fired;
        return fired > 0 ? fired + step : target;
    }

    Field field_{GetParam().carrier};
    Child listener_ = field_.listen();
    Injector injector_{field_};
    std::optional<Child> worker_;
    std::set<std::string> struck_;
    int failures_ = 0;
    unsigned ends_ = 0;

  private:
    void start_worker();
    void provoke();
    void expect_line(const std::string& log) const;
};

void Failures::start_worker() {
    worker_.reset();
    worker_.emplace(field_.run_channel(injector_.environment()));
}

/// Back to a channel that runs and an empty queue.
void Failures::settle() {
    injector_.disarm();
    await("a channel that waits", [&] {
        if (!worker_ || has_ended(*worker_)) { // a store that failed ends it at its next use
            start_worker();
        }
        return field_.status() == "RUNING" && field_.status("PID") == std::to_string(worker_->pid());
    });
}

void Failures::provoke() {
    switch (GetParam().road) {
    case Road::kMessage:
        field_.put(MessageKind::kFile, 1, 100, 5000);
        break;
    case Road::kReconnect:
        ::kill(worker_->pid(), SIGUSR2);
        break;
    case Road::kHeartbeat:
        ::kill(worker_->pid(), SIGALRM);
        break;
    case Road::kDeadLetter:
        field_.put(MessageKind::kHeaderless, 1, 100, 5000);
        break;
    case Road::kStart:
        start_worker();
        break;
    case Road::kStop:
        ::kill(worker_->pid(), SIGTERM);
        break;
    }
}

void Failures::expect_line(const std::string& log) const {
    const inject::Control& control = injector_.control();
    if (control.value == EINTR || control.value == EAGAIN) {
        return;
    }
    for (const Line& line : kLines) {
        const bool applies = !line.message_only || GetParam().trigger == Trigger::kMessage;
        if (applies && std::string(line.call) == control.name) {
            EXPECT_NE(log.find(line.text), std::string::npos)
                << "no line says '" << line.text << "' after " << control.name << " failed with " << control.value;
        }
    }
}

bool Failures::fail(int target, int error) {
    const Road road = GetParam().road;
    if (road == Road::kStart) {
        worker_.reset();
    } else {
        settle();
    }
    const std::size_t logged = field_.log().size();
    injector_.arm({GetParam().trigger, Action::kFail, inject::kAnyKind, target, 0, error});
    provoke();
    const bool waits = injector_.done(*worker_, "a failed call");
    const inject::Control& control = injector_.control();
    const std::string what = std::string(control.name) + " with " + std::to_string(control.value);
    const int ended_well = road == Road::kStop ? 0 : 1;
    if (!waits && !HasFailure()) {
        EXPECT_EQ(worker_->result(), ended_well) << "after " << what;
        worker_.reset();
        ++ends_;
    }
    if (control.fired == 0) {
        return !waits && !GetParam().process_each && !HasFailure(); // it ended of the failure before: once more
    }
    ++failures_;
    struck_.insert(control.name);
    expect_line(field_.log().substr(logged));
    return !HasFailure();
}

TEST_P(Failures, EachCallOnce) {
    const int step = GetParam().process_each && rounds(0) == 0 ? kSample : 1;
    for (int error = 0; error < kMostErrors; ++error) {
        for (int target = 1; fail(target, error); target = next(target, step)) {
            if (GetParam().road == Road::kMessage) {
                settle();
                field_.await_arrived(field_.ledger().size());
            }
        }
        if (HasFailure()) {
            return;
        }
    }
    settle();
    const std::uint64_t odd = GetParam().road == Road::kDeadLetter ? field_.ledger().size() : 0;
    field_.put_one_of_each();
    field_.await_arrived(field_.ledger().size() - odd);
    if (odd == 0) { // a headerless message whose dead-letter queue failed is held
        field_.await_drained();
    }
    EXPECT_EQ(worker_->result_under(SIGTERM), 0);
    EXPECT_EQ(end_listener(listener_), 0);
    const Verdict verdict = field_.judge(0, ends_);
    EXPECT_EQ(verdict.lost, 0U);
    EXPECT_EQ(verdict.dead + verdict.held, odd);
    injector_.expect_no_finding();
    RecordProperty("calls failed", failures_);
    RecordProperty("different calls", static_cast<int>(struck_.size()));
    RecordProperty("ends with status 1", static_cast<int>(ends_));
    RecordProperty("repeated", static_cast<int>(verdict.repeated));
}

INSTANTIATE_TEST_SUITE_P(Roads, Failures, ::testing::ValuesIn(kRoads),
                         [](const auto& test) { return std::string(test.param.name); });

} // namespace
} // namespace kvr::test
