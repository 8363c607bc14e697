// SPDX-License-Identifier: MIT
#include "channel_run.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace kvr::test {

namespace {

constexpr std::size_t kBindFrame = 78;
constexpr char kHere[] = "here"; ///< connection name that stands for the receiver's

/// Replaces ids and ports, which differ from run to run, by their names.
std::string named(std::string text, const std::map<std::string, std::string>& names) {
    for (const std::string before :
         {"127.0.0.1:", "127.0.0.1(", "PORT=", "PID=", "abort[", "Exist(", "Proc(", "waitpid "}) {
        for (size_t at = 0; (at = text.find(before, at)) != std::string::npos;) {
            at += before.size();
            const size_t size = std::min(text.find_first_not_of("0123456789", at), text.size()) - at;
            if (const auto name = names.find(text.substr(at, size)); name != names.end()) {
                text.replace(at, size, name->second);
            }
        }
    }
    return text;
}

} // namespace

Hook failing(int result, int from, int to, int err) {
    return [=](const Call& c) -> std::optional<int> {
        errno = err;
        return c.n >= from && c.n <= to ? std::optional(result) : std::nullopt;
    };
}

Hook failing_of(long a, int times, int result, int err) {
    return [=, left = times](const Call& c) mutable -> std::optional<int> {
        errno = err;
        return c.a == a && left-- > 0 ? std::optional(result) : std::nullopt;
    };
}

Hook raising(int sig) {
    return [=](const Call&) {
        raise(sig);
        return std::optional<int>();
    };
}

bool held(int sig) {
    raise(sig);
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, sig) == 1;
}

Message message(const std::string& body, const std::string& dest) {
    Message msg = raw("XTMH" + std::string("\1\0\0\0", 4) + padded(dest, 32) + padded("QM2", 32) + body);
    msg.md.cMsgStoreType = KVR_STORE_DATA;
    msg.md.iMsgType = 1;
    return msg;
}

Message raw(const std::string& data) {
    Message msg;
    msg.data = data;
    return msg;
}

GetStep deliver(const Message& msg) {
    return [msg](T_KAVRO_MD* md, char* buf, int* len) {
        auto* list = static_cast<T_KAVRO_ACCESSORIES_MD*>(md->pOptData);
        *md = msg.md;
        std::copy_n("MD  ", 4, md->sStrucId);
        md->iVersion = 2;
        md->pOptData = msg.null_list ? nullptr : list;
        list->iNum = msg.file_count.value_or(static_cast<int>(msg.files.size()));
        for (size_t i = 0; i < msg.files.size(); ++i) {
            snprintf(list->sFiles[i], sizeof list->sFiles[i], "%s", msg.files[i].c_str());
        }
        std::copy(msg.data.begin(), msg.data.end(), buf);
        *len = msg.length.value_or(static_cast<int>(msg.data.size()));
        host().in_hand = msg;
        host().in_hand.md = *md;
        return kSuccess;
    };
}

GetStep interrupted(int sig) {
    return [sig](T_KAVRO_MD*, char*, int*) {
        raise(sig);
        errno = EINTR;
        return -4;
    };
}

GetStep idle() {
    return [](T_KAVRO_MD*, char*, int*) {
        wait_for("select()");
        sigset_t held;
        sigset_t before;
        sigfillset(&held);
        sigprocmask(SIG_SETMASK, &held, &before);
        trace(kNote, "idle");
        sigsuspend(&before);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return -4;
    };
}

GetStep finally(std::function<void()> what) {
    return [what = std::move(what)](T_KAVRO_MD*, char*, int*) -> int {
        what();
        _exit(kScriptOver);
    };
}

std::string header(char type, std::size_t package) {
    return frame(type, "Q1", "00000001", "00000000", "").replace(67, 8, digits(package));
}

std::string plain_block(char store_type, int flags) {
    return nuls(64) + store_type + nuls(7) + big_endian(flags) + nuls(196);
}

std::string data_frame(const std::string& body) {
    return header('0', 272 + body.size()) + plain_block('1') + body;
}

std::string err(int code) {
    return std::to_string(code) + ":" + strerror(code);
}

Lines Result::lines(const std::string& kinds, pid_t of) const {
    Lines texts;
    for (const Entry& e : trace) {
        if (e.pid == (of == 0 ? pid : of) && kinds.find(e.kind) != std::string::npos) {
            texts.push_back(e.text);
        }
    }
    return texts;
}

int Result::count(const std::string& text) const {
    return static_cast<int>(
        std::ranges::count_if(trace, [&](const Entry& e) { return e.text.find(text) != std::string::npos; }));
}

std::string Result::dump() const {
    std::string text = "status " + std::to_string(status) + ", " + std::to_string(conns.size()) + " connections\n";
    for (const Entry& e : trace) {
        text += std::string(e.pid == pid ? "  " : "  (other process) ") + e.kind + " " + e.text + "\n";
    }
    return text;
}

testing::AssertionResult in_order(const Result& r, const Lines& texts, const std::string& kinds) {
    std::string all = " | ";
    for (const std::string& line : r.lines(kinds)) {
        all += line + " | ";
    }
    std::size_t at = 0;
    for (const std::string& text : texts) {
        at = all.find(" | " + text + " | ", at);
        if (at == std::string::npos) {
            return testing::AssertionFailure() << "missing in this order: " << text << "\n" << r.dump();
        }
        at += text.size();
    }
    return testing::AssertionSuccess();
}

ChannelTest::ChannelTest() {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // line watchers that outlive their channel come to us
    signal(SIGPIPE, SIG_IGN);         // the receiver's TLS may answer a connection that is gone
    EXPECT_EQ(chdir(dir_.c_str()), 0);
    mkdir("files", 0700);
    host() = Host{};
    chl() = {{"XMITQ", "XQ"},   {"CHLTYPE", "SNDR"}, {"HBINT", "5"},   {"DISCINT", "9"}, {"SSLCAUTH", ""},
             {"SHORTRTY", "0"}, {"SHORTTMR", "4"},   {"LONGRTY", "0"}, {"LONGTMR", "6"}, {"CONNAME", kHere}};
    qmgr() = {{"CAFILE", "ca"}, {"CERTFILE", "cert"}, {"KEYFILE", "key"}, {"KEYPASS", "pw"}, {"DEADQ", "DLQ"}};
}

Result ChannelTest::run(const std::function<void()>& body) {
    Result result;
    std::map<std::string, std::string> names;
    trace_reset();
    std::optional<Peer> peer(std::in_place, receiver_, [&](PeerConnection& connection) {
        names[std::to_string(connection.port())] = "PORT" + std::to_string(result.conns.size() + 1);
        result.conns.push_back(connection.read(cues_.empty() ? 0 : kBindFrame));
        for (const Cue& cue : std::exchange(cues_, {})) {
            wait_for(cue.after);
            cue.act(connection);
        }
        result.conns.back() += connection.read_all();
    });
    const int port = peer->port();
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
                at->second = "127.0.0.1(" + std::to_string(port) + ")";
            }
        }
        start_recording();
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(result.pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    for (const Entry& e : trace_entries()) {
        if (e.kind == kChild) {
            result.watchers.push_back(std::stoi(e.text));
            names[e.text] = "W" + std::to_string(result.watchers.size());
            kill(result.watchers.back(), SIGCONT); // a case may have stopped its watcher
        }
    }
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    peer.reset(); // the receiver has seen the end of every connection
    host().get.clear();
    host().hooks.clear();
    names[std::to_string(port)] = "PORT";
    names[std::to_string(result.pid)] = "PID";
    result.trace = trace_entries();
    for (Entry& e : result.trace) {
        e.text = named(e.text, names);
        EXPECT_NE(e.kind, kFault) << e.text;
    }
    EXPECT_NE(result.status, 66) << "a sanitizer ended the channel process";
    return result;
}

Result ChannelTest::run_channel(const std::vector<int>& events) {
    return run([&events] {
        load();
        std::ranges::for_each(events, event);
    });
}

Result ChannelTest::run_messages(const std::vector<Message>& msgs) {
    for (const Message& msg : msgs) {
        host().get.push_back(deliver(msg));
    }
    return run_channel();
}

void ChannelTest::use_tls(Carrier carrier) {
    chl()["SSLCAUTH"] = "ENABLE";
    qmgr() = {{"CAFILE", tls_material().ca_file},
              {"CERTFILE", tls_material().client.cert_file},
              {"KEYFILE", tls_material().client.key_file},
              {"KEYPASS", kKeyPass},
              {"DEADQ", "DLQ"}};
    receiver_.carrier = carrier;
    receiver_.ask_client_cert = true;
}

std::string ChannelTest::file(const std::string& name, const std::string& content) {
    std::ofstream("files/" + name, std::ios::binary) << content;
    return "files/" + name;
}

} // namespace kvr::test
