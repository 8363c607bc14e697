// SPDX-License-Identifier: MIT
#include "channel_run.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace kvr::test {

namespace {

constexpr std::chrono::seconds kDeadline{60};
constexpr std::size_t kBindFrame = 78;

constexpr char kHere[] = "here"; ///< connection name that stands for the receiver's

void act(PeerConnection& connection, Cue::Act what) {
    switch (what) {
    case Cue::kClose:
        return connection.close();
    case Cue::kReset:
        return connection.reset();
    case Cue::kSend:
        connection.write("bytes");
        return;
    case Cue::kTicket:
        return connection.send_tickets(1);
    }
}

} // namespace

std::vector<std::string> Result::lines(const std::string& kinds, pid_t of) const {
    std::vector<std::string> texts;
    for (const Entry& e : trace) {
        if (e.pid == (of == 0 ? pid : of) && kinds.find(e.kind) != std::string::npos) {
            texts.push_back(e.text);
        }
    }
    return texts;
}

std::vector<std::string> Result::lines_between(const std::string& kinds, const std::string& first,
                                               const std::string& last) const {
    auto all = lines(kinds);
    std::erase(all, "3 line disconnected [0]");
    const auto from = std::find(all.begin(), all.end(), first);
    const auto to = std::find(all.rbegin(), all.rend(), last);
    if (from == all.end() || to == all.rend() || from >= to.base()) {
        return {"not found: " + first + " ... " + last};
    }
    return {from, to.base()};
}

int Result::count(const std::string& text) const {
    return static_cast<int>(std::count_if(trace.begin(), trace.end(),
                                          [&](const Entry& e) { return e.text.find(text) != std::string::npos; }));
}

std::string Result::dump() const {
    std::string text = "status " + std::to_string(status) + ", " + std::to_string(conns.size()) + " connections\n";
    for (const Entry& e : trace) {
        text += std::string(e.pid == pid ? "  " : "  (other process) ") + e.kind + " " + e.text + "\n";
    }
    return text;
}

testing::AssertionResult in_order(const Result& r, const std::vector<std::string>& texts) {
    const auto all = r.lines("LNHSTE");
    auto at = all.begin();
    for (const std::string& text : texts) {
        at = std::find(at, all.end(), text);
        if (at == all.end()) {
            return testing::AssertionFailure() << "missing in this order: " << text << "\n" << r.dump();
        }
        ++at;
    }
    return testing::AssertionSuccess();
}

std::string err(int code) {
    return std::to_string(code) + ":" + strerror(code);
}

ChannelTest::ChannelTest() {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // line watchers that outlive their channel come to us
    signal(SIGPIPE, SIG_IGN);         // the receiver's TLS may answer a connection that is gone
    host() = Host{};
    chl() = {{"XMITQ", "XQ"},   {"CHLTYPE", "SNDR"}, {"HBINT", "5"},   {"DISCINT", "9"}, {"SSLCAUTH", ""},
             {"SHORTRTY", "0"}, {"SHORTTMR", "4"},   {"LONGRTY", "0"}, {"LONGTMR", "6"}, {"CONNAME", kHere}};
    qmgr() = {{"CAFILE", "ca"}, {"CERTFILE", "cert"}, {"KEYFILE", "key"}, {"KEYPASS", "pw"}, {"DEADQ", "DLQ"}};
}

Result ChannelTest::run(const std::function<void()>& body) {
    Result result;
    trace_reset();
    std::optional<Peer> peer(std::in_place, receiver_, [&](PeerConnection& connection) {
        const bool first = result.conns.empty();
        result.ports.push_back(connection.port());
        result.conns.push_back(connection.read(first && !cues_.empty() ? kBindFrame : 0));
        for (const Cue& cue : first ? cues_ : std::vector<Cue>()) {
            wait_for(cue.after);
            act(connection, cue.act);
            if (cue.act == Cue::kClose || cue.act == Cue::kReset) {
                return;
            }
        }
        result.conns.back() += connection.read_all();
    });
    port_ = peer->port();
    if (!listening_) {
        peer.reset();
    }
    fflush(nullptr);
    result.pid = fork();
    if (result.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_DFL);
        for (auto& [name, attributes] : host().objects) {
            if (auto at = attributes.find("CONNAME"); at != attributes.end() && at->second == kHere) {
                at->second = "127.0.0.1(" + std::to_string(port_) + ")";
            }
        }
        host().recording = true;
        body();
        _exit(0);
    }
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    for (bool alone = false; !alone;) { // until every process of the run has ended and was reaped
        int status = 0;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        alone = pid < 0;
        if (pid == result.pid) {
            result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            for (const Entry& e : trace_entries()) {
                if (e.kind == kChild) {
                    kill(atoi(e.text.c_str()), SIGCONT); // a case may have stopped its watcher
                }
            }
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the channel process or a line watcher did not end";
            for (const Entry& e : trace_entries()) {
                kill(e.pid, SIGKILL);
            }
            kill(result.pid, SIGKILL);
        }
        if (pid == 0) {
            poll(nullptr, 0, 2);
        }
    }
    peer.reset(); // the receiver has seen the end of every connection
    host().get.clear();
    cues_.clear();
    result.trace = trace_entries();
    for (const Entry& e : result.trace) {
        if (e.kind == kFault) {
            ADD_FAILURE() << e.text;
        } else if (e.kind == kChild) {
            result.watchers.push_back(atoi(e.text.c_str()));
        }
    }
    EXPECT_NE(result.status, 66) << "a sanitizer ended the channel process";
    EXPECT_EQ(result.count("KVR_QueMsgGet(WRONG)"), 0) << "a get did not start from blank records";
    EXPECT_EQ(result.count("CHANGED"), 0) << "a dead-lettered message is not what the get returned";
    return result;
}

Result ChannelTest::run_events(const std::vector<int>& ids) {
    return run([&ids] {
        load();
        for (int id : ids) {
            event(id);
        }
    });
}

Result ChannelTest::run_messages(const std::vector<Message>& msgs) {
    for (const Message& msg : msgs) {
        host().get.push_back(deliver(msg));
    }
    return run_channel();
}

std::string ChannelTest::file(const std::string& name, const std::string& content) const {
    std::ofstream(dir_ + "/" + name, std::ios::binary) << content;
    return dir_ + "/" + name;
}

} // namespace kvr::test
