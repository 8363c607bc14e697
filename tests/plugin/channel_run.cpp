// SPDX-License-Identifier: MIT
#include "channel_run.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>

namespace kvr::test {

constexpr char kHere[] = "here"; ///< connection name that stands for the receiver's

Hook failing(int result, int nth, int err) {
    return [=, calls = 0](long) mutable {
        errno = err;
        return nth == 0 || ++calls == nth ? std::optional(result) : std::nullopt;
    };
}

Hook failing_of(long argument, int times, int result, int err) {
    return [=, left = times](long given) mutable {
        errno = err;
        return given == argument && left-- > 0 ? std::optional(result) : std::nullopt;
    };
}

Message message(const std::string& body, const std::string& dest) {
    Message msg = raw("XTMH" + std::string("\1\0\0\0", 4) + padded(dest, 32) + padded("QM2", 32) + body);
    msg.md.cMsgStoreType = KVR_STORE_DATA;
    msg.md.iMsgType = 1;
    return msg;
}

Message raw(const std::string& data, std::optional<int> length) {
    return {.data = data, .length = length};
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

std::string Result::named(std::string text) const {
    for (const auto& [name, number] : names) {
        text = std::regex_replace(text, std::regex(name), number);
    }
    return text;
}

int Result::count(const std::string& text) const {
    return static_cast<int>(std::ranges::count_if(
        trace, [wanted = named(text)](const Entry& e) { return e.text.find(wanted) != std::string::npos; }));
}

std::string Result::dump() const {
    std::string text = "status " + std::to_string(status) + ", " + std::to_string(conns.size()) + " connections\n";
    for (const Entry& e : trace) {
        text += std::string(e.pid == pid ? "  " : "  (other process) ") + e.text + "\n";
    }
    return text;
}

testing::AssertionResult in_order(const Result& r, const Lines& texts) {
    std::string all = " | ";
    for (const Entry& e : r.trace) {
        all += e.pid == r.pid ? e.text + " | " : "";
    }
    std::size_t at = 0;
    for (std::string text : texts) {
        text = r.named(text);
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
    EXPECT_EQ(chdir(folder_.path().c_str()), 0);
    mkdir("files", 0700);
    host() = Host{};
    chl() = {{"XMITQ", "XQ"},   {"CHLTYPE", "SNDR"}, {"HBINT", "5"},   {"DISCINT", "9"}, {"SSLCAUTH", ""},
             {"SHORTRTY", "0"}, {"SHORTTMR", "4"},   {"LONGRTY", "0"}, {"LONGTMR", "6"}, {"CONNAME", kHere}};
    qmgr() = {{"CAFILE", "ca"}, {"CERTFILE", "cert"}, {"KEYFILE", "key"}, {"KEYPASS", "pw"}, {"DEADQ", "DLQ"}};
}

Result ChannelTest::run(const std::function<void()>& body) {
    Result result;
    trace_reset();
    std::optional<Peer> peer(std::in_place, receiver_, [&](PeerConnection& connection) {
        const Cue cue = std::exchange(cue_, {});
        result.names.emplace("<own port>", std::to_string(connection.port()));
        result.conns.push_back(connection.read(cue.act ? kBind.size() : 0));
        if (cue.act) {
            wait_for(cue.after);
            cue.act(connection);
        }
        result.conns.back() += connection.read_all();
    });
    const std::string port = std::to_string(peer->port());
    fflush(nullptr);
    result.pid = fork();
    if (result.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_DFL);
        if (chl()["CONNAME"] == kHere) {
            chl()["CONNAME"] = "127.0.0.1(" + port + ")";
        }
        start_recording();
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(result.pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    std::map<std::string, std::string> names{{"<port>", port}, {"<pid>", std::to_string(result.pid)}};
    for (const Entry& e : trace_entries()) {
        if (e.text.starts_with("child ")) {
            const std::string id = e.text.substr(6);
            names["<watcher " + std::to_string(names.size() - 1) + ">"] = id;
            kill(std::stoi(id), SIGCONT); // a case may have stopped its watcher
        }
    }
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    peer.reset(); // the receiver has seen the end of every connection
    host().get.clear();
    host().hooks.clear();
    result.names.merge(names);
    result.trace = trace_entries();
    for (const Entry& e : result.trace) {
        EXPECT_FALSE(e.text.starts_with("fault: ")) << e.text;
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

std::string ChannelTest::file(const std::string& name, const std::string& content) {
    std::ofstream("files/" + name, std::ios::binary) << content;
    return "files/" + name;
}

} // namespace kvr::test
