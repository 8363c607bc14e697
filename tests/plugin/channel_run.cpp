// SPDX-License-Identifier: MIT
#include "channel_run.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace kvr::test {

namespace {

constexpr std::chrono::seconds kDeadline{60};

/// One accepted connection of the receiver.
class Connection {
  public:
    Connection(int sock, SSL_CTX* ctx) : sock_(sock) {
        fcntl(sock_, F_SETFL, O_NONBLOCK);
        if (ctx != nullptr) {
            ssl_ = SSL_new(ctx);
            SSL_set_fd(ssl_, sock_);
            SSL_set_accept_state(ssl_);
        }
    }

    bool open() const { return sock_ >= 0; }
    int sock() const { return sock_; }

    /// Takes in what has arrived; closes at the end of the stream.
    void read_into(std::string& bytes) {
        char buf[65536];
        for (;;) {
            const auto n = ssl_ != nullptr ? SSL_read(ssl_, buf, sizeof buf) : recv(sock_, buf, sizeof buf, 0);
            if (n > 0) {
                bytes.append(buf, static_cast<size_t>(n));
                continue;
            }
            const bool again = ssl_ != nullptr ? SSL_get_error(ssl_, static_cast<int>(n)) == SSL_ERROR_WANT_READ
                                               : n < 0 && errno == EAGAIN;
            if (!again) {
                end(false);
            }
            return;
        }
    }

    void end(bool reset) {
        if (reset) {
            const linger now{1, 0};
            setsockopt(sock_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        }
        SSL_free(ssl_);
        close(sock_);
        ssl_ = nullptr;
        sock_ = -1;
    }

    void send_ticket() {
        SSL_new_session_ticket(ssl_);
        SSL_do_handshake(ssl_);
    }

    void send_text() {
        if (ssl_ != nullptr) {
            SSL_write(ssl_, "bytes", 5);
        } else {
            send(sock_, "bytes", 5, MSG_NOSIGNAL);
        }
    }

  private:
    int sock_;
    SSL* ssl_ = nullptr;
};

/// The receiving side of one run.
class Receiver {
  public:
    Receiver(int listener, SSL_CTX* ctx, std::vector<Cue>& cues, Result& result)
        : listener_(listener), ctx_(ctx), cues_(cues), result_(result) {}

    bool all_ended() const {
        return std::none_of(conns_.begin(), conns_.end(), [](const Connection& c) { return c.open(); });
    }

    /// Waits at most 2 ms for something to happen and deals with it.
    void serve() {
        std::vector<pollfd> waited{{listener_, POLLIN, 0}};
        for (const Connection& conn : conns_) {
            waited.push_back({conn.sock(), POLLIN, 0});
        }
        poll(waited.data(), waited.size(), 2);
        for (size_t i = 0; i < conns_.size(); ++i) {
            if (conns_[i].open() && waited[i + 1].revents != 0) {
                conns_[i].read_into(result_.conns[i]);
            }
        }
        if ((waited[0].revents & POLLIN) != 0) {
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            conns_.emplace_back(accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC), ctx_);
            result_.conns.emplace_back();
            result_.ports.push_back(ntohs(peer.sin_port));
        }
        for (Cue& cue : cues_) {
            act(cue);
        }
    }

  private:
    void act(Cue& cue) {
        if (cue.done || cue.conn >= conns_.size() || !conns_[cue.conn].open() ||
            result_.conns[cue.conn].size() < cue.after_bytes) {
            return;
        }
        if (!cue.after_text.empty()) {
            const auto all = trace_entries();
            if (std::count_if(all.begin(), all.end(), [&](const Entry& e) {
                    return e.text.find(cue.after_text) != std::string::npos;
                }) < cue.text_count) {
                return;
            }
        }
        cue.done = true;
        if (cue.act == Cue::kSend) {
            conns_[cue.conn].send_text();
        } else if (cue.act == Cue::kTicket) {
            conns_[cue.conn].send_ticket();
        } else {
            conns_[cue.conn].end(cue.act == Cue::kReset);
        }
    }

    int listener_;
    SSL_CTX* ctx_;
    std::vector<Cue>& cues_;
    Result& result_;
    std::vector<Connection> conns_;
};

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
    char name[] = "/tmp/kvr_plugin_XXXXXX";
    dir_ = mkdtemp(name);
    host() = Host{};
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        abort();
    }
    port_ = ntohs(addr.sin_port);
    chl() = {{"XMITQ", "XQ"},   {"CHLTYPE", "SNDR"},
             {"HBINT", "5"},    {"DISCINT", "9"},
             {"SSLCAUTH", ""},  {"SHORTRTY", "0"},
             {"SHORTTMR", "4"}, {"LONGRTY", "0"},
             {"LONGTMR", "6"},  {"CONNAME", "127.0.0.1(" + std::to_string(port_) + ")"}};
    qmgr() = {{"CAFILE", "ca"}, {"CERTFILE", "cert"}, {"KEYFILE", "key"}, {"KEYPASS", "pw"}, {"DEADQ", "DLQ"}};
}

ChannelTest::~ChannelTest() {
    close(listener_);
    SSL_CTX_free(server_ctx_);
    std::filesystem::remove_all(dir_);
}

Result ChannelTest::run(const std::function<void()>& body) {
    Result result;
    trace_reset();
    if (listening_) {
        listen(listener_, 64);
    }
    fflush(nullptr);
    result.pid = fork();
    if (result.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_DFL);
        close(listener_);
        host().recording = true;
        body();
        _exit(0);
    }
    Receiver receiver(listening_ ? listener_ : -1, server_ctx_, cues_, result);
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    bool ended = false;
    bool alone = false; // every process of the run has ended and was reaped
    while (!alone || !receiver.all_ended()) {
        receiver.serve();
        int status = 0;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        alone = pid < 0;
        if (pid == result.pid) {
            ended = true;
            result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            for (const Entry& e : trace_entries()) {
                if (e.kind == kChild) {
                    kill(atoi(e.text.c_str()), SIGCONT); // a case may have stopped its watcher
                }
            }
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << (ended ? "a line watcher or a connection outlived its channel"
                                    : "the channel process did not end");
            for (const Entry& e : trace_entries()) {
                kill(e.pid, SIGKILL);
            }
            kill(result.pid, SIGKILL);
            while (waitpid(-1, nullptr, 0) > 0) {
            }
            break;
        }
    }
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

Result ChannelTest::run_channel() {
    return run([] {
        load();
        event(1);
        event(2);
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
